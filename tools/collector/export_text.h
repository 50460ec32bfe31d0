// Texts of exported files: JSON strings, CSV fields, times of the command line.
//
// Threads   Any; no state.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vx::collector {

// A JSON string with its quotes. Bytes that are no UTF-8 become the replacement character.
void addJsonText(std::string& out, std::string_view text);
// A CSV field: in quotes when it holds a comma, a quote or an end of line.
void addCsvText(std::string& out, std::string_view text);
// Milliseconds since the Unix epoch out of "1760000000000", "2026-11-22", "2026-11-22T10:30" or
// "2026-11-22T10:30:15" (UTC; a "Z" may follow). False for anything else.
bool readTime(std::string_view text, std::int64_t& ms);

}  // namespace vx::collector
