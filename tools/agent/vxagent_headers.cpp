#include "tools/agent/vxagent_headers.h"

#include <array>
#include <cstring>

namespace vx::agent {
namespace {

struct SeparatorRow {
    std::string_view agentType;
    HeaderSeparators separators;
};
constexpr auto kSeparators = std::to_array<SeparatorRow>({
    {"Python", {'|', '$'}},
    {"go", {'\x7F', '$'}},
});
constexpr HeaderSeparators kOtherTypes{'&', '='};

// Puts bytes into `out` as long as they fit.
struct HeaderText {
    char* const out;
    const std::size_t size;
    std::size_t used = 0;

    bool put(char byte) {
        if (used == size) return false;
        out[used++] = byte;
        return true;
    }
    bool putEncoded(char byte) {
        constexpr char kHex[] = "0123456789ABCDEF";
        return put('%') && put(kHex[byte >> 4 & 0xF]) && put(kHex[byte & 0xF]);
    }
};

bool usableName(const char* name, HeaderSeparators separators) {
    return name && *name && !std::strpbrk(name, "=$") && !std::strchr(name, separators.between);
}

bool putHeader(HeaderText& text, HeaderSeparators separators, const vxagent_header& header) {
    bool fits = text.used == 0 || text.put(separators.between);
    for (const char* at = header.name; fits && *at; ++at) fits = text.put(*at);
    fits = fits && text.put(separators.behindName);
    for (const char* at = header.value ? header.value : ""; fits && *at; ++at)
        fits = *at == separators.between ? text.putEncoded(*at) : text.put(*at);
    return fits;
}

}  // namespace

HeaderSeparators headerSeparators(std::string_view agentType) {
    for (const SeparatorRow& row : kSeparators)
        if (row.agentType == agentType) return row.separators;
    return kOtherTypes;
}

std::size_t joinHeaders(HeaderSeparators separators, const vxagent_header* headers, std::size_t count,
                        char* out, std::size_t size) {
    HeaderText text{out, size};
    for (std::size_t i = 0; i < count; ++i) {
        if (!usableName(headers[i].name, separators)) continue;
        const std::size_t before = text.used;
        if (!putHeader(text, separators, headers[i])) text.used = before;
    }
    return text.used;
}

}  // namespace vx::agent
