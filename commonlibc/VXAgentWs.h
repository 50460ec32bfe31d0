// A WebSocket connection of an agent: what the listener knows of it, and the messages that wait for it.
//
//     send_on_wsi (any thread) --> [message][message].. --ready list, wake--> listener --writable--> library
//
// Only the listener calls the library. Another thread appends a whole message, puts the connection on the
// ready list and wakes the listener, which asks for its turn to write. Each message is a block of its own
// with the library's room in front, and goes out as one WebSocket message.
//
// Limits    kAgentBlockFull bytes wait for a connection, and beside them one message that has no room within
//           that bound, so that a file goes whole; kAllAgentBlocks in all connections. Of lines that come in
//           parts kAllAgentParts bytes are held in all connections.
// Errors    A message that is not taken makes the connection `overfull`: the listener closes it.
// Lifetime  The listener makes and frees it. Whoever found it in a process record holds that record's
//           sendMutex while he uses it: it leaves the record under that mutex before it is freed.
// Threads   send_on_wsi, vxWakeAgentWs: any. Everything else: the listener.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "commonlibc/context/VXIdentity.h"

struct lws;
struct lws_context;

namespace vx {

inline constexpr std::size_t kAgentBlockFull = 1048576;
inline constexpr std::size_t kAllAgentBlocks = 134217728;
inline constexpr std::size_t kAllAgentParts = 16777216;

struct VXAgentMessage;

struct VXAgentWs {
    lws* wsi;
    epollPtr_t* address;  // the process's own pair; null before registration and behind the end
    bool closing;         // it belongs to nobody any more and ends soon
    bool waiting;         // for its turn to write
    // What the library has handed over and no reader has taken yet.
    const char* in;
    std::size_t inLength;
    // Parts of a message of lines that is not complete.
    char* parts;
    std::size_t partsLength;
    // The send block; guarded by a mutex of the unit.
    VXAgentMessage *first, *last;
    const VXAgentMessage* passing;  // the one beside the bound, or null
    std::size_t held;               // bytes of the others
    std::size_t taken;              // bytes of the first one that the library has
    bool ready;
    VXAgentWs* nextReady;
    std::atomic<bool> overfull;  // a message was not taken
};

// Null without memory.
VXAgentWs* vxMakeAgentWs(lws* wsi);
// Frees it, its messages too; no record holds it any more. Null is passed over.
void vxFreeAgentWs(VXAgentWs* record);
// Takes it from its process and has the library end it soon: also from within a callback.
void vxCloseAgentWs(VXAgentWs& record);
// Peer's address and port; "" and 0 when they are not known.
void vxAgentWsPeer(const VXAgentWs& record, char* ip, std::size_t size, int* port);

// Queues `len` bytes as one message. 0, or -1 when they are not taken; then the connection is closed.
int send_on_wsi(const char* src, VXAgentWs& record, std::size_t len);
// The context that is woken; null: none.
void vxSetAgentWsContext(lws_context* context);
void vxWakeAgentWs();

// Takes a connection that has become ready off the list; null: there is none.
VXAgentWs* vxTakeReadyAgentWs();
// True when so much waits that nothing more should be asked of it.
bool vxAgentWsLaden(const VXAgentWs& record);
// Writes what waits while the library takes it without buffering. 1 when something still waits, 0 when
// nothing does, -1 when the connection has failed.
int vxWriteAgentWs(VXAgentWs& record);

// Puts a part of a message of lines behind those that came before. False when it would be longer than
// `limit`, or there is no room for it.
bool vxKeepAgentPart(VXAgentWs& record, const char* in, std::size_t length, std::size_t limit);
void vxDropAgentParts(VXAgentWs& record);

}  // namespace vx
