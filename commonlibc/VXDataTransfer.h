// Way of a chain's bytes onto one connection, and back when the connection dies.
//
// A node goes back to the producers when the collector's host has acknowledged its bytes, not when the
// system has taken them. When a connection dies, what was not acknowledged begins again on the next one,
// from the beginning of a record:
//
//     [ acknowledged | not yet | not sent ]  -->  [ gone | begins here: offset == sentFrom ]
//             record ^^^^^^^^                           ^ its first byte
//
// So a connection begins with a whole line, a record that the old connection cut is sent whole, and what is
// lost is counted in recordsDropped. A record whose beginning lies in a node given back already is dropped
// and counted. Two things cannot be seen from here: what the host had acknowledged and its program never read
// is lost uncounted, and what it had taken when a reset overtook the acknowledgement comes twice.
//
// Over libwebsockets the same holds; over WS and WSS a message that had not arrived whole begins again.
//
// Limits    A send waits at most the socket's time-out, or sendTimeUs over libwebsockets. Where the system
//           cannot tell what was acknowledged, what it has taken counts as arrived.
// Errors    The codes below.
// Threads   The thread that owns the connection.
#pragma once

#include <apr_network_io.h>

#include <cstdint>

#include "commonlibc/context/vx_application.h"

namespace vx {

// What carries a chain's bytes: a socket, or a connection over libwebsockets, or neither.
struct VXCarrier {
    apr_socket_t* socket;
    VXLwsConnection* lws;
    std::int64_t sendTimeUs;  // libwebsockets: how long a send waits for room

    VXCarrier(apr_socket_t* plain, VXLwsConnection* connection = nullptr, std::int64_t timeUs = 0) noexcept
        : socket(plain), lws(connection), sendTimeUs(timeUs) {}
    explicit operator bool() const noexcept { return socket || lws; }
};

inline constexpr int kSendLost = -1;    // connection unusable
inline constexpr int kSendDone = 0;     // nothing left to send
inline constexpr int kSendNoBytes = 1;  // the socket took no bytes; try again
inline constexpr int kThreadEnds = 2;   // the run's end has been written: return up to the thread's body

// Sends what the read list holds. `stop` (may be null) is asked between two sends, also of one node, so that
// a stop need not wait for a slow peer: an answer but 0 is returned as kThreadEnds.
int vxSendChain(VXBufferChain& chain, const VXCarrier& carrier, int (*stop)());
// The next node with bytes to send, behind what the loss of a connection makes it pass over; null: none.
VXBufferNode* vxNodeToSend(VXBufferChain& chain);
// Gives the head of the read list back: all of it has arrived.
void vxGiveBackHead(VXBufferChain& chain);
// Gives back what has arrived meanwhile.
void vxReleaseArrived(VXBufferChain& chain, const VXCarrier& carrier);
// Waits until what was handed over has arrived, or `untilUs` (steady microseconds). What has not by then is
// called back: the carrier, when closed, resets the connection. Bytes that have not arrived.
std::int64_t vxSettle(const VXCarrier& carrier, std::int64_t untilUs);
// The connection has ended with `unacknowledged` bytes of its end not arrived.
void vxConnectionGone(VXBufferChain& chain, std::int64_t unacknowledged);

}  // namespace vx
