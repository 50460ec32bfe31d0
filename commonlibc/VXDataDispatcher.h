// Data channel of an instance: the buffer chain between producers and the sender.
//
// Producers copy whole records into the node being written and return; nothing blocks and nothing grows.
// When no free node is left, records are dropped whole and counted.
//
// Shape     Two lists of nodes of fixed size (drawn in VXDataState.h). A record may straddle two nodes: the
//           stream is a byte stream, and the receiver sees no node boundaries.
// Limits    bciDataBufferMaxCount nodes of bciDataBufferMaxSize bytes, allocated when a data thread starts.
//           A record longer than what is left of one node and a whole second one is cut and closed by a
//           newline.
// Losses    Each line is a record. Every record that dumpData takes is counted once: as accepted, and as
//           dropped when it was refused or when it left the chain unsent.
// Errors    The codes below; each refused call adds one to VXSys.dataDropCount.
// Lifetime  The chain outlives its threads: nodes are made once and used again, never given back.
// Threads   dumpData any; the moves as their locks say (see VXDataState.h). Functions that take a chain
//           serve every channel of that shape; the others work on the current context's data channel.
#pragma once

#include <cstdint>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Answers of addDataInSendBuffer() below 0.
inline constexpr int kChainDropped = -1;     // no free node behind the one being written
inline constexpr int kChainAllWaiting = -2;  // every node waits to be sent
inline constexpr int kChainCut = -3;         // longer than a node: its beginning is stored
inline constexpr int kChainNoBuffers = -99;  // the chain has no nodes

// The one entry for producers: takes any bytes; callers format whole records ending in a newline. Discards
// everything, uncounted, while neither testRunRunning nor draining is set.
void dumpData(const char* buffer, std::int64_t length);
// The same for a record that its writer keeps and brings again, such as a name: when there is no room for it,
// the answer is false and it counts as nothing.
[[nodiscard]] bool vxOfferRecord(const char* record, std::int64_t length);
// While a taker is set, dumpData hands the records of this thread to it instead of the chain, uncounted: what
// a new connection has to learn goes out in front of everything that waits. Null ends it.
using VXRecordTaker = void (*)(const char* record, std::int64_t length);
void vxDivertRecords(VXRecordTaker taker);
// Copies a record of at least 1 byte; dumpMutex held. 0 or a code above.
int addDataInSendBuffer(VXBufferChain& chain, const char* buffer, std::int64_t length);
// The same without any count.
int vxAppendToChain(VXBufferChain& chain, const char* data, std::int64_t length);
// Counts what one call brought, once it is known whether the chain took it.
void vxCountAccepted(VXBufferChain& chain, const char* data, std::int64_t length);  // dumpMutex held
void vxCountRefused(VXBufferChain& chain, const char* data, std::int64_t length);   // any thread
// Moves the node being written behind the nodes that wait to be sent (producers' side, dumpMutex held).
void moveToReadList(VXBufferChain& chain);
// Moves the node being sent to the free nodes, next in turn (sender's side); the caller has emptied it.
void moveToWriteList(VXBufferChain& chain);
// Hands the node being written to the sender if it holds anything.
void movePartialToReadList(VXBufferChain& chain);
void movePartialToReadList();
// Writes the one-byte heartbeat record when dataHeartbeatInterval has passed; `flushPartial` 1 hands it to
// the sender at once. The first call only notes the time.
void handleHeartBeat(int flushPartial);
// Adds nodes up to bciDataBufferMaxCount and empties what is there: data of a former run is not sent, and
// counted as dropped. 0, or 1 when memory failed or the chunk size is below 1 (nodes made before stay).
// Existing nodes keep their size.
int buff_list_init();
// Adds `count` nodes of `chunkSize` bytes; both mutexes held, every node empty. The first goes behind the
// write list's head (or becomes it): nodes that stood there are given back. 0, or 1 as above.
int vxGrowChain(VXBufferChain& chain, std::int32_t count, std::int32_t chunkSize);
// The same behind the write list's tail; nodes may hold data, and every node stays. How many were added.
std::int32_t vxExtendChain(VXBufferChain& chain, std::int32_t count, std::int32_t chunkSize);
// Counts what the chain holds as dropped and empties it (no sender, no connection). How many records.
std::uint64_t vxDiscardChain(VXBufferChain& chain);
// Frees all nodes (tests only).
void vxFreeChain(VXBufferChain& chain);

}  // namespace vx
