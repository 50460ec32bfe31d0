// Flowpath identity and sessions: instance numbers, masks, cookies.
//
// An instance number is ((time mask & now) << digits) + (sequence mask & sequence) + the base that the
// collector gave; the parts are added, so a sequence that outgrows its field carries into the time.
//
// Cookies   vxCookie: up to 10 fields at "-": session flowpath, test run, session start (ms in the
//           instance's base), captured, -, -, count of flowpaths, -, -, -. kwCookie: at least 4 fields:
//           session id in field 0, page id in field 3. Both are cut at 1,023 characters.
// Errors    A bad mask keeps the former masks, a bad cookie the slot's fields; both are traced.
// Threads   generate_flowpath_instance any; the rest under the decode lock, masks by the control thread.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Takes "base%20timeMask%20digits%20sequenceMask" apart in place; masks are hexadecimal, the base unused.
void parse_flowpath_mask(char* text);
std::int64_t generate_flowpath_instance();
void parseVXCookieStr(const char* text, vxTD* slot);
void parseKWCookieStr(const char* text, vxTD* slot);
void setValue(vxTD* slot);  // starts a new session with this flowpath

}  // namespace vx
