#include "commonlibc/VXParsingLines.h"

#include <cstring>

#include "commonlibc/vxlb_mem.h"

namespace vx {

namespace {

bool isPassedOver(const char* line) {
    return *line == '\0' || *line == '\n' || *line == '\r' || *line == '#';
}

// The text, null for an empty one.
char* orNull(char* text) {
    return text && *text ? text : nullptr;
}

}  // namespace

char* VXTextLines::next() noexcept {
    while (at_ && *at_) {
        char* const line = at_;
        char* const end = std::strchr(line, '\n');
        at_ = end ? end + 1 : nullptr;
        if (isPassedOver(line)) continue;
        char* last = end ? end : line + std::strlen(line);
        if (static_cast<std::size_t>(last - line) > kMaxTextLine) continue;
        if (last[-1] == '\r') --last;
        *last = '\0';
        return line;
    }
    return nullptr;
}

VXSignature vxSplitSignature(char* text) noexcept {
    char* const open = std::strchr(text, '(');
    char* const close = std::strchr(text, ')');
    VXSignature signature{text, nullptr, nullptr};
    if (close) signature.returnType = orNull(close[1] == ' ' ? close + 2 : close + 1);
    if (!open) return signature;
    *open = '\0';
    if (!close || close < open) {
        signature.returnType = nullptr;  // what stands before "(" is the name, whatever it holds
        return signature;
    }
    *close = '\0';
    signature.arguments = orNull(open + 1);
    return signature;
}

char* make_argument_copy(const char* arguments, unsigned* count) {
    *count = 0;
    if (!arguments) return nullptr;
    auto* const copy = static_cast<char*>(VXLB_MALLOC(std::strlen(arguments) + 1, "method arguments", -1));
    if (!copy) return nullptr;
    char* out = copy;
    while (*count < kMaxArguments) {
        arguments += std::strspn(arguments, ";");
        const std::size_t length = std::strcspn(arguments, ";");
        if (length == 0) break;
        std::memcpy(out, arguments, length);
        out += length;
        *out++ = '\0';
        arguments += length;
        ++*count;
    }
    if (*count > 0) return copy;
    VXLB_FREE(copy, "method arguments", -1);
    return nullptr;
}

}  // namespace vx
