// Reset queue: transactions whose agent never sends their end are ended by the thread that owns them.
//
//     auto-sensor thread                                   owner: listener, or UDP worker
//     markLongIdleTransactions -> queueFPResetThreadOps -> [op][op].. -> processThreadOps -> endFP, reset
//        walks the busy list        queuedForReset 0 -> 1       looks again: idle still, and on the same
//        stay?
//
// The walk goes on the atomic members of the slots alone; it holds the pool mutex for kWalkStep slots at a
// time. An operation names its slot by the serial of its stay on the busy list, so a transaction that has
// ended meanwhile is never taken for another.
//
// Units     Milliseconds in the instance's base; the limit is FPMaxAllowedAgeInSec, or 300 s below 1.
// Limits    kThreadOpsMax operations in a queue: beyond, a slot is left to the next walk. One call of
//           processThreadOps runs at most kThreadOpsTurn, so that the owner is soon back at its sockets.
// Errors    An operation for which no memory is found is lost; the next walk meets its slot again.
// Threads   Producers: any. A queue's consumer: its owner thread, which takes the decode lock of each
//           operation's instance. The queue mutex is a leaf, taken inside the mutex over the list of queues.
#pragma once

#include <apr_pools.h>

#include "commonlibc/context/vx_application.h"

namespace vx {

inline constexpr std::uint16_t kThreadOpsStep = 10;
inline constexpr std::uint16_t kThreadOpsMax = 2000;
inline constexpr int kThreadOpsTurn = 64;

// Makes the queue of worker `index` (the listener: 0): capacity kThreadOpsStep. The queue of a worker is
// known to producers from here on. `wake` (or null) is called when something was queued and must not use the
// queues. False without memory.
bool initializeThreadOperations(VXThreadOpsQueue& queue, apr_pool_t* pool, std::uint16_t index,
                                void (*wake)(VXThreadOpsQueue& queue));
// Takes the queue from the producers and frees its array; before its pool goes.
void vxEndThreadOperations(VXThreadOpsQueue& queue);

// Queues a reset for the slot, which is on the busy list of the current instance with that serial, in the
// queue of its owner. False when it was left.
bool queueFPResetThreadOps(vxTD* slot, std::uint64_t busySerial);
// Runs what is queued: by the owner, between two events.
void processThreadOps(VXThreadOpsQueue& queue);
// One line for each queue, at every 30th call.
void printAllThreadsOperations();

// Walks the current instance's busy list and queues what has been idle for longer than the limit.
void markLongIdleTransactions();
// Takes the instance's operations out of all queues.
void dropResetQueueOfInstance(vxApplication* app);

}  // namespace vx
