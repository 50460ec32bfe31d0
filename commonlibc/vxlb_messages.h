// The eight agent messages: what each body holds, and the call on the flowpath engine that it becomes.
//
// | type | message | becomes |
// |---|---|---|
// | 0, 1 | method entry, method exit | vxMethodEntry, vxMethodExit |
// | 2 | transaction start | startFP, setTierCallOut, the slot's entry in fpi_tls_map |
// | 3, 4 | transaction end, reset | endFP and reset; reset alone, with the age sweep |
// | 5, 7 | exception, exit by exception | handleExceptionParameters, vxMethodExitException |
// | 6 | HTTP headers | sendHttpHdrReq or sendHttpHdrRep |
//
// A body is taken whole (lengths checked, strings copied) before anything is done with it. A body that is
// refused, and one whose flowpath is not there, does nothing and counts in decoder.messagesRefused, like a
// start that got no slot.
//
// Threads   Under the decode lock, on the current context; times of activity are those of the read being
//           decoded (decoder.readTimeUs, readSteadyMs).
#pragma once

#include <cstdint>

namespace vx {

inline constexpr int kMessageConsumed = 0;  // refused ones and unknown flowpaths too
inline constexpr int kMessageCorrupt = -1;  // empty body or unknown type
inline constexpr int kMessageNoMap = -2;    // the instance has no flowpath map yet

// Counts a message of the current context that came to nothing.
void vxCountRefusedMessage();
// Handles one body (fixed part, strings, newline).
//   singleRecord  0: the flowpath's number is its key; 1: `fpKey` is
int readDataMessage(const char* body, std::int64_t bodyLength, std::int32_t messageType, int singleRecord,
                    const char* fpKey);
// Finds `needle`, cuts the rest at the next "&" and answers what follows the first "="; null, and nothing
// is cut, without either.
char* getBtBaseOnHeader1(char* haystack, const char* needle);
// Resets every flowpath that began more than 300 seconds before `nowMs` (steady), without records.
void resetFPafterThreshold(std::int64_t nowMs);

}  // namespace vx
