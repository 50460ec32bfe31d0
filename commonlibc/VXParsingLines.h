// Lines and signatures of the texts that fill the method table.
//
// Everything is taken apart in place: pieces are terminated and point into the text.
//
// Threads   Any; no state but the cursor's own.
#pragma once

#include <cstddef>

namespace vx {

inline constexpr std::size_t kMaxTextLine = 32767;  // a longer line is passed over
inline constexpr int kMaxArguments = 1024;

// Walks over the lines of a terminated text that are not empty, not comments and not too long.
class VXTextLines {
public:
    explicit VXTextLines(char* text) noexcept : at_(text) {}

    // The next line, terminated, without the carriage return before its end; null when none is left.
    char* next() noexcept;

private:
    char* at_;
};

struct VXSignature {
    char* name;        // what stands before "("
    char* arguments;   // between "(" and ")", separated by ";"; null: none
    char* returnType;  // behind ")" and one blank; null: none
};
VXSignature vxSplitSignature(char* text) noexcept;
// The arguments as one heap block of terminated texts, one behind another; empty ones are left out. Null
// without arguments or memory.
char* make_argument_copy(const char* arguments, unsigned* count);

}  // namespace vx
