#include "tools/collector/collector_text.h"

#include <charconv>

namespace vx::collector {

std::string_view takeUntil(std::string_view& rest, char end) {
    const std::size_t at = rest.find(end);
    const std::string_view taken = rest.substr(0, at);
    rest = at == std::string_view::npos ? std::string_view() : rest.substr(at + 1);
    return taken;
}

bool takeNumber(std::string_view& rest, std::int64_t& out) {
    const auto done = std::from_chars(rest.data(), rest.data() + rest.size(), out);
    if (done.ec != std::errc()) return false;
    rest.remove_prefix(static_cast<std::size_t>(done.ptr - rest.data()));
    return true;
}

bool takeChar(std::string_view& rest, char wanted) {
    if (rest.empty() || rest.front() != wanted) return false;
    rest.remove_prefix(1);
    return true;
}

bool readNumber(std::string_view text, std::int64_t& out) {
    if (!text.empty() && text.back() == 'F') text.remove_suffix(1);
    return takeNumber(text, out) && text.empty();
}

bool readFlowpath(std::string_view text, std::int64_t& out) {
    return readNumber(text.substr(0, text.find(':')), out);
}

bool setName(Names& names, std::string_view idText, std::string_view name) {
    std::int64_t id = 0;
    if (!readNumber(idText, id) || id < 0 || id > kMaxId) return false;
    names[id] = name;
    return true;
}

std::string knownName(const Names& names, std::int64_t id, std::string_view otherwise) {
    const auto found = names.find(id);
    return found != names.end() ? found->second : std::string(otherwise);
}

std::string nameOf(const Names& names, std::int64_t id, const char* kind) {
    const auto found = names.find(id);
    return found != names.end() ? found->second : std::string(kind) + " " + std::to_string(id);
}

std::string plainName(std::string_view name) {
    std::string out;
    for (std::size_t at = 0; at < name.size(); ++at) {
        std::string_view rest = name.substr(at);
        std::int64_t code = 0;
        if (rest.starts_with("&#") && (rest.remove_prefix(2), takeNumber(rest, code)) &&
            takeChar(rest, ';') && code >= ' ' && code < 127) {
            out += static_cast<char>(code);
            at = name.size() - rest.size() - 1;
        } else {
            out += name[at];
        }
    }
    return out;
}

}  // namespace vx::collector
