// Text files of the home's config folder: where they lie, and a walk over their lines.
//
// A line whose first byte is a tab, line feed, carriage return, blank or "#" is a comment. The rest of a
// line after the first carriage return or line feed, and blanks and tabs at its end, are cut off.
//
// Limits    A line above `maxLength` bytes is handed over cut and marked; its rest is passed over.
// Errors    vxWalkConfigLines() answers false, without a visit, when the file cannot be read.
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <functional>

namespace vx {

inline constexpr std::size_t kConfigPathSize = 4096;

// One line that is no comment. `text` is good during the visit.
struct VXConfigLine {
    int number;  // from 1
    const char* text;
    bool tooLong;
};
using VXConfigVisitor = std::function<void(const VXConfigLine&)>;

// "<home>/config/<name>" of the current context's home, cut at size - 1.
void vxConfigPath(char* path, std::size_t size, const char* name);
bool vxWalkConfigLines(const char* path, std::size_t maxLength, const VXConfigVisitor& visit);

}  // namespace vx
