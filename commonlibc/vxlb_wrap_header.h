// Wrap header: what stands in front of each message of a datagram, and its writer.
//
// Layout on the wire, little-endian, without padding:
//
//     | offset | size | field        |                                                              |
//     | ------ | ---- | ------------ | ------------------------------------------------------------ |
//     | 0      | 1    | marker       | "^"                                                          |
//     | 1      | 4    | whLen        | length of the header: the payload begins there               |
//     | 5      | 4    | apiReqLen    | lengths of the four strings                                  |
//     | 9      | 4    | awsReqLen    |                                                              |
//     | 13     | 4    | funcNameLen  |                                                              |
//     | 17     | 4    | tagslength   |                                                              |
//     | 21     | 2    | agentType    | 0 Python, 1 php, 2 Dotnet, 3 Java, 4 go                      |
//     | 23     | 2    | messageType  | VXWrapType                                                   |
//     | 25     | 8    | requestKey   | of an attached client's request: finds its flowpath          |
//     | 33     | 4    | contextIndex | what the proxy gave the client, -1 before that               |
//     | 37     | 4    | attached     | 1: the client belongs to an instance; 0: it is a function    |
//     | 41     | var  | strings      | apiReqId, awsReqId, funcName, tags; only with contextIndex -1 |
//
// The payload goes up to a newline, which ends the message; records bring theirs.
//
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <cstdint>

#include "commonlibc/vxlb_encode.h"

namespace vx {

inline constexpr char kWrapMarker = '^';
inline constexpr std::size_t kWrapFixedSize = 41;
inline constexpr std::size_t kWrapDatagramMin = 45;     // of a datagram; shorter ones are refused
inline constexpr std::size_t kWrapDatagramMax = 56319;  // what the proxy takes of one

// Where the fields stand.
inline constexpr std::size_t kWrapLengthAt = 1, kWrapApiReqLenAt = 5, kWrapAwsReqLenAt = 9,
                             kWrapFuncNameLenAt = 13, kWrapTagsLenAt = 17, kWrapAgentTypeAt = 21,
                             kWrapMessageTypeAt = 23, kWrapRequestKeyAt = 25, kWrapContextIndexAt = 33,
                             kWrapAttachedAt = 37;

enum class VXWrapType : std::int16_t {
    kRecords = 0,         // one data record
    kRuckusResponse = 1,  // text from whLen + 1 on; "^" stands at whLen
    kPendingRuckus = 2,   // is answered with "AppIndex:%d" and what is pending
    kHeartbeat = 3,
    kKeyWordCookie = 4,  // queries: the settings document, by parts
    kSessionCookie = 5,
    kCookieValue = 6,
    kLogText = 7,
    kSettings = 8,
};

inline constexpr std::int32_t kWrapIndexUnknown = -1;

struct VXWrapHeader {
    VXWrapType messageType;
    std::int16_t agentType;
    std::int64_t requestKey;
    std::int32_t contextIndex;
    std::int32_t attached;
    VXWireText apiReqId, awsReqId, funcName, tags;  // left out when the index is known
};

// Writes one wrapped message: header, payload, and a newline where the payload does not end with one. The
// header is padded so that the message alone makes a datagram that is taken. The length, or -1 when it does
// not fit (the buffer is unchanged).
std::int64_t vxWrapEncode(char* out, std::size_t size, const VXWrapHeader& header, VXWireText payload);

}  // namespace vx
