// Text files of the home's config folder: where they lie, and a walk over their lines.
//
// A line whose first byte is a tab, line feed, carriage return, blank or "#" is a comment. The rest of a
// line after the first carriage return or line feed, and blanks and tabs at its end, are cut off; so is the
// byte order mark that some editors put in front of the first line. A comment that looks like a line with a
// purpose (indented, without "#") is handed over marked, so that an operator can be told; it has no effect.
//
// Limits    A line above `maxLength` bytes is handed over cut and marked; its rest is passed over.
// Errors    Of what is no regular file nothing is read: a pipe in its place would hold up the start.
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace vx {

inline constexpr std::size_t kConfigPathSize = 4096;

// Why a line is not to be looked at.
enum class VXConfigFault { kNone, kTooLong, kIndented, kZeroByte };

// One line that is no plain comment. `text` is good during the visit.
struct VXConfigLine {
    int number;  // from 1
    const char* text;
    VXConfigFault fault;
};
using VXConfigVisitor = std::function<void(const VXConfigLine&)>;

// "<home>/config/<name>" of the current context's home, cut at size - 1.
void vxConfigPath(char* path, std::size_t size, const char* name);
// kRead, or what is the matter; `reason` then says it, as in "Permission denied".
enum class VXConfigAnswer { kRead, kMissing, kUnreadable };
VXConfigAnswer vxWalkConfigLines(const char* path, std::size_t maxLength, const VXConfigVisitor& visit,
                                 std::string& reason);

}  // namespace vx
