// Error rules: which HTTP statuses count as errors, from the text of a rules file.
//
// A line has 6 fields split at "|": field 0 is "0" for a line that acts, field 1 is "1" for an error and
// anything else for no error, fields 3 and 4 are the first and last status (an upper bound of 600 acts as
// 599).
//
//     0|1|Server errors|500|599|-
//
// Lines that begin with "#" are comments. What a text says takes effect at once.
//
// Errors    A line with another number of fields, or out of range, is traced and ends the parse; earlier
//           lines have their effect.
// Threads   Control thread of the instance; current context. The decode lock must not be held.
#pragma once

namespace vx {

void parseBtError(const char* text);

}  // namespace vx
