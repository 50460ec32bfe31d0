// What a connection over libwebsockets remembers. Private to the lws_ units.
//
// States    connecting --> standing --> gone; a failure leads from connecting to gone. Only the callbacks
//           change the state.
// Threads   The connection's owner.
#pragma once

#include <libwebsockets.h>

#include <cstddef>
#include <cstdint>

#include "commonlibc/context/VXLwsState.h"

namespace vx {

inline constexpr std::int32_t kLwsBlockSize = 16320;  // with its frame, one record of TLS
inline constexpr std::int32_t kLwsReceiveSize = 65536;

enum class VXLwsPhase : std::uint8_t { kConnecting, kStanding, kGone };

// When `payload` bytes had been handed over, the system had taken `wire` bytes.
struct VXLwsMark {
    std::int64_t payload, wire;
};
inline constexpr std::size_t kLwsMarks = 256;  // above that they are coarser: the newest one moves

struct VXLwsConnection {
    lws_context* context;
    lws_vhost* vhost;
    lws* wsi;  // null before and behind the connection
    lws_sorted_usec_list_t timer;
    const char* label;
    VXLwsPhase phase;
    char peer[16];  // address; written once, before others know the connection
    bool framed;    // WebSocket; else raw
    bool text;
    bool receiveHeld;  // the other side is not read: the buffer has no room

    unsigned char* block;  // LWS_PRE bytes for the library, then kLwsBlockSize
    std::int32_t to_send;  // bytes of the block that the library has not got

    char* received;  // kLwsReceiveSize bytes; null: what comes is thrown away
    std::int32_t receivedFrom, receivedTo;

    std::int64_t taken;          // payload from callers
    std::int64_t acknowledged;   // on the wire, as last seen
    std::int64_t wireStart;      // taken by the system before the first payload
    std::int64_t arrived;        // payload, as last seen
    bool wireKnown;              // false where the system cannot tell: what it has counts as arrived
    VXLwsMark marks[kLwsMarks];  // oldest first, a ring
    std::size_t firstMark, markCount;
};

}  // namespace vx
