// One connection to the collector over libwebsockets: raw TCP, WebSocket (WS) or WebSocket over TLS (WSS).
//
// To its owner it is a stream of bytes in each direction, whatever carries them:
//
//     vxLwsSend --> [block] --writable--> library --> system --> other host         to_send: bytes of the
//     block vxLwsRead <-- [received] <--receive-- library <-- system
//
// The library is asynchronous: a turn (vxLwsTurn) waits for what happens and calls back. Every call here that
// waits makes turns. A callback only moves bytes and sets marks; the connection ends in the owner's hands.
//
// What has arrived is known from the bytes that the other host's system has acknowledged. Over raw TCP that
// is exact. Over WS and WSS a message counts as arrived when the last byte of its frame is acknowledged.
//
// Limits    A block (one message) has at most kLwsBlockSize bytes. Of what is received kLwsReceiveSize bytes
// are
//           held; then the other side is not read.
// Errors    As each call says; a connection that does not stand any more answers as closed.
// Lifetime  From vxLwsConnect() to vxLwsEnd(). Context, buffers and descriptor end with it.
// Threads   The owner, which made it; its current context is the instance's. vxLwsWake() any, as long as the
//           owner does not end it meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>

#include "commonlibc/context/VXLwsState.h"

namespace vx {

struct VXLwsTarget {
    const char* label;    // of traces, as in "Control"
    const char* host;     // its name, as the other side knows it
    const char* address;  // where it was found to be; null: found by the name
    int port;
    int protocol;         // kProtocolTCP, kProtocolWS or kProtocolWSS
    bool text;            // messages are text where they can be, else binary
    bool reads;           // what comes is kept for vxLwsRead(), else thrown away
    std::int64_t timeUs;  // for the whole of connecting; finding the host's address is not bounded
    bool (*stop)();       // asked about every second while connecting; true gives it up
};

// A connection that stands, or null with the reason traced.
VXLwsConnection* vxLwsConnect(const VXLwsTarget& target);
// Ends it and its context; what is still to be sent goes with it. Not from within a callback. Null is passed
// over.
void vxLwsEnd(VXLwsConnection* connection);
bool vxLwsStands(const VXLwsConnection& connection);

// One turn: waits at most `us` for something to happen, and for the callbacks of what happened. The library's
// own timers, as that of pings, run in a turn with `us` above 0.
void vxLwsTurn(VXLwsConnection& connection, std::int64_t us);
// Ends a turn that waits, or the next one at once.
void vxLwsWake(VXLwsConnection& connection);

// Takes bytes if there is room now, without a turn. How many, 0 when there is none, -1 when the connection is
// gone.
std::int64_t vxLwsOffer(VXLwsConnection& connection, const char* data, std::int64_t length);
// The same with turns for at most `us` until there is room, and one behind it.
std::int64_t vxLwsSend(VXLwsConnection& connection, const char* data, std::int64_t length, std::int64_t us);
// Sends everything and waits until the system has it: at most `us`, and as long as `stop` (may be null)
// answers false. False when not all of it went.
bool vxLwsSendAll(VXLwsConnection& connection, const char* data, std::int64_t length, std::int64_t us,
                  bool (*stop)());
// True when the system has everything that was taken.
bool vxLwsFlushed(const VXLwsConnection& connection);
// Bytes at the end of what was taken that have not arrived; also after the connection's loss.
std::int64_t vxLwsUnacknowledged(VXLwsConnection& connection);

// True when vxLwsRead() has something to give without a turn, the end included.
bool vxLwsReadable(const VXLwsConnection& connection);
// Waits at most `us` for bytes. How many of at most `size`, 0 when none came, -1 when the connection is gone
// and everything was read.
std::int64_t vxLwsRead(VXLwsConnection& connection, char* out, std::int64_t size, std::int64_t us);

int vxLwsDescriptor(const VXLwsConnection& connection);  // -1 when there is none
// The other side's address, as it was when the connection came to stand; any thread that may wake it.
const char* vxLwsPeer(const VXLwsConnection& connection);

}  // namespace vx
