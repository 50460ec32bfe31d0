// Back-end naming: from what an agent calls the other side of a call to the name under which it is counted.
//
// Limits    A name is cut at size - 1.
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr std::size_t kBackendNameSize = 1025;       // with terminator
inline constexpr const char* kDefaultBackendRule = "Host";  // where no rule names another
inline constexpr std::int64_t kNoResourceId = 0;

// Makes the name of a back-end from its escaped text (null: an empty name) by `rule`. The name's length.
std::size_t settingBackendName(const char* escaped, const char* rule, char* name, std::size_t size);
// The id of the URL that a call went to; kNoResourceId while no table of such URLs is kept.
std::int64_t getIDForIPResourceURL(const char* url, std::size_t length);

}  // namespace vx
