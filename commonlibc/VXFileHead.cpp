#include "commonlibc/VXFileHead.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr const char* kNameKeys[] = {"keyword=", "instrProfile="};

// The fields of a line, none of them of a size of its own.
struct Found {
    const char* nameEnd = nullptr;
    std::int64_t size = 0, lmd = 0;
};

// A number that ends where a field may end.
bool takeNumber(const char* text, std::int64_t& number) {
    char* end = nullptr;
    number = std::strtoll(text, &end, 10);
    return end != text && std::strchr(";|%\r\n", *end);  // the terminator counts as one of them
}

bool takeKeyed(const char* line, const char* sizeKey, const char* lmdKey, Found& found) {
    const char* size = std::strstr(line, sizeKey);
    const char* lmd = std::strstr(line, lmdKey);
    if (!size || !lmd) return false;
    found.nameEnd = std::min(size, lmd);
    return takeNumber(size + std::strlen(sizeKey), found.size) &&
           takeNumber(lmd + std::strlen(lmdKey), found.lmd);
}

// The last two fields: a file's name may hold the separator.
bool takeBars(const char* line, Found& found) {
    const char* lmd = std::strrchr(line, '|');
    if (!lmd || lmd == line) return false;
    const char* size = lmd - 1;
    while (size > line && *size != '|') --size;
    if (*size != '|') return false;
    found.nameEnd = size;
    return takeNumber(size + 1, found.size) && takeNumber(lmd + 1, found.lmd);
}

std::string_view nameOf(const char* line, const char* end) {
    const std::string_view front(line, static_cast<std::size_t>(end - line));
    for (const char* key : kNameKeys) {
        const std::size_t at = front.find(key);
        if (at != std::string_view::npos) return front.substr(at + std::strlen(key));
    }
    return front;
}

}  // namespace

int getFileSizeAndLmd(const char* line, char* name, std::int64_t* size, std::int64_t* lmd) {
    Found found;
    if (!takeKeyed(line, ";size=", ";lmd=", found) && !takeKeyed(line, "%3Bsize%3D", "%3Blmd%3D", found) &&
        !takeBars(line, found))
        return -1;
    const std::string_view text = nameOf(line, found.nameEnd).substr(0, kFileNameSize - 1);
    std::memcpy(name, text.data(), text.size());
    name[text.size()] = '\0';
    *size = found.size;
    *lmd = found.lmd;
    VX_TRACE(2, kControlThread, kInfo, "fileName = %s, size = %lld, lmd = %lld", name,
             static_cast<long long>(found.size), static_cast<long long>(found.lmd));
    return 0;
}

bool vxHeadNames(const char* headName, const char* asked) {
    const std::size_t length = std::strlen(asked);
    return std::strncmp(headName, asked, length) == 0 && std::strchr(";%|", headName[length]);
}

}  // namespace vx
