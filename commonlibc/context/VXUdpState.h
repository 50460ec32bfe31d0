// UDP intake: datagrams on their way from the receiver to the workers, the tables of contexts that datagrams
// name, and what a context knows of its clients.
//
//     receiver: free list -> node filled by one datagram -> tail of a worker's queue
//     worker:   head of its queue -> decoded -> free list
//
// Guards    VXUdp.freeMutex: the free list. A worker's mutex: its queue. VXUdp.registration: every write to
//           the tables, their counts and the list of free contexts; readers load the published tables.
// Lifetime  A function's context ends when nobody pins it any more; its block is used again by a later
//           function, zero-filled but for its mutexes. Tables that are replaced stay allocated.
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "commonlibc/context/VXProxyState.h"

namespace vx {

struct vxApplication;

inline constexpr std::int32_t kUdpNodeSize = 56320;       // bytes of a node's buffer
inline constexpr std::int32_t kUdpNodesPerWorker = 4;     // what bounds the backlog
inline constexpr std::int32_t kUdpTableStep = 16;         // entries by which the function table grows
inline constexpr std::int64_t kUdpDefaultTimeoutS = 900;  // proxyudpTimeout below 1
inline constexpr std::int32_t kMaxUdpClients = 256;       // addresses that a context remembers

struct VXUdpAddress {
    std::uint32_t ip;    // host order: 127.0.0.1 is 0x7F000001
    std::uint16_t port;  // host order
};

struct VXUdpNode {
    char* buffer;  // kUdpNodeSize bytes, terminated behind the datagram
    std::int32_t length, capacity;
    VXUdpNode* next;
    VXUdpAddress sender;
};

struct VXUdpQueue {
    VXUdpNode *head, *tail;
};

// One worker: its queue, and the operations queued for its flowpaths.
struct udpStorage {
    std::mutex mutex;
    std::condition_variable ready;  // queue not empty, or stop
    VXUdpQueue queue;
    VXUdpAddress lastSender;
    bool waiting;  // the worker sleeps and wants a signal; mutex
    vxApplication* root;
    std::int32_t workerIndex;  // 0 to VXUdp.workerCount - 1; tlWorkerIndex of its thread
    VXThreadOpsQueue threadOps;
    apr_thread_t* thread;
    apr_pool_t* threadPool;
};

// Process-wide state of the intake; made by the receiver before its loop, taken down when all have ended.
struct VXUdpIntake_t {
    std::mutex freeMutex;
    std::condition_variable freed;  // a node came back, or stop
    VXUdpQueue freeList;

    udpStorage* workers;                    // array, whole once workerCount is set
    std::atomic<std::int32_t> workerCount;  // 0: no worker runs
    std::mutex stopMutex;
    std::condition_variable stopped;  // stopping was set
    std::atomic<bool> stopping;

    std::mutex socketMutex;  // the descriptor, also during a send (which never waits); a leaf
    int socket;              // -1: none

    std::mutex registration;
    std::atomic<std::atomic<vxApplication*>*> functions;  // published table
    std::atomic<std::int32_t> functionSlots;              // its size; it never shrinks
    vxApplication* freeContexts;                          // linked by udp.nextFree
    std::uint64_t functionsRefused, functionsRefusedTold;
    std::uint64_t lostTold;  // datagrams lost by the system, as far as traced
};
extern VXUdpIntake_t& VXUdp;

// A context's part: of a function, or of an instance with attached clients.
struct VXUdpContext_t {
    std::atomic<std::int32_t> pins;            // workers and watchers that hold the context; never zeroed
    std::atomic<std::int64_t> lastActivityMs;  // steady ms; 0: not started yet
    std::atomic<std::uint8_t> attached;        // 1: a TCP instance with UDP clients
    std::uint8_t settled;                      // 1: freeUDPConnections has given everything back
    vxApplication* nextFree;                   // registration
    apr_pool_t* mutexPool;                     // a function's mutexes, as long as the block
    std::uint64_t clientsReplaced;             // addresses that gave way to newer ones
};

}  // namespace vx
