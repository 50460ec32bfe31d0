// Buffer chains and sender threads of an instance: the data channel and the auto-sensor channel.
//
// The write list is filled by producers, the read list emptied by the sender; a node moves whole.
//
//     producers -> [writeListHead == VXBCIAgentBB] -> next -> ... -> writeListTail
//     sender    <- [readListHead == VXCollectorBB] -> next -> ... -> readListTail
//
// A node stays in the read list until the collector's host has acknowledged its bytes: when a connection
// dies, what it had not acknowledged is still there.
//
// Guards    dumpMutex: use_len of the node being written; listMutex: links, heads, tails, sizes. Order:
//           dumpMutex, then listMutex. A node in the read list belongs to the sender alone. The two BB
//           pointers are stored under listMutex and read by their side without it.
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include <atomic>
#include <cstdint>

#include "commonlibc/context/VXLwsState.h"
#include "commonlibc/context/VXSharedSocket.h"

namespace vx {

struct VXBufferNode {
    char* buffer;
    std::int32_t use_len;    // bytes written by producers
    std::int32_t offset;     // bytes sent; never above use_len
    std::int32_t sentFrom;   // where the present connection began in it (sender)
    std::int32_t buff_size;  // capacity
    VXBufferNode* next;
};

struct VXBufferChain {
    std::atomic<VXBufferNode*> VXCollectorBB;  // node being sent: head of the read list, or null
    std::atomic<VXBufferNode*> VXBCIAgentBB;   // node being written: head of the write list, or null
    VXBufferNode* writeListHead;
    VXBufferNode* writeListTail;
    VXBufferNode* readListHead;
    VXBufferNode* readListTail;
    std::int32_t readListSize, writeListSize;
    apr_thread_mutex_t* dumpMutex;
    apr_thread_mutex_t* listMutex;
    // Records (lines) since process start. `accepted` is written under dumpMutex.
    std::atomic<std::uint64_t> recordsAccepted;
    std::atomic<std::uint64_t> recordsDropped;  // refused, or accepted and not sent: gone either way
    // Sender only.
    std::int64_t heldBytes;   // handed to the present connection out of nodes of the read list
    std::uint8_t headIsTorn;  // the head goes on with a record whose beginning was given back
    std::uint8_t passOver;    // the rest of that record is not sent: its beginning is lost
};

struct VXDataState_t {
    VXBufferChain chain;
    apr_pool_t* dataPool;        // made once
    apr_pool_t* threadPool;      // the data thread's start; remade by the next start (control thread)
    apr_thread_t* dataThread;    // joined by the next start (control thread)
    apr_pool_t* connectionPool;  // one connect attempt and its connection (data thread)
    std::atomic<std::uint8_t> data_thread_running;
    std::atomic<std::uint8_t> controlCommunicationBusyFlag;
    VXSharedSocket dataSocket;  // data thread puts and closes
    VXLwsHandle dataWsi;
    char dataConnSourceIP[16], dataConnDestIP[16];  // data thread only, for trace
    std::int32_t dataConnSourcePort, dataConnDestPort;
    std::atomic<std::int32_t> dataConnFailCount;
    std::atomic<std::int64_t> lastDataHeartbeatTime;  // steady ms; 0 before the first
    std::atomic<std::int64_t> dataThreadOsId;         // system id of the data thread, 0 when none
    // Data thread only.
    std::uint8_t flushing;         // flushCommonData is running
    std::uint8_t replayedThisRun;  // metadata went out behind a 99 record since the thread's start
    std::int64_t flushDeadlineUs;  // steady microseconds: 5 s after the thread first saw its stop; 0 before
};

struct VXAutoSensorState_t {
    VXBufferChain chain;
    apr_pool_t* pool;            // made once
    apr_pool_t* threadPool;      // the thread's start; remade by the next start (control thread)
    apr_thread_t* thread;        // joined by the next start (control thread)
    apr_pool_t* connectionPool;  // one connect attempt and its connection (auto-sensor thread)
    std::atomic<std::uint8_t> autoSensor_thread_running;
    std::atomic<std::uint8_t> asStopFlag;
    std::atomic<std::uint8_t> breakFlag;
    std::atomic<std::uint8_t> lastReport;  // dumpASData accepts while set, though the run has ended
    VXSharedSocket asSocket;               // auto-sensor thread puts and closes
    VXLwsHandle asWsi;
    char sourceIP[16], destIP[16];  // auto-sensor thread only, for trace
    std::int32_t sourcePort, destPort;
    std::int32_t curBuffers;       // nodes of the chain; dumpMutex
    std::int64_t flushDeadlineUs;  // steady microseconds: end of the last flush (auto-sensor thread)
    char hotspotPrefix[1024], hotspotPrefixID[64];  // set by the thread at its start
};

// What the loss trace has told already.
// Owner     Whoever holds `mutex` (a leaf).
struct VXLossState_t {
    apr_thread_mutex_t* mutex;
    std::uint64_t records, starts, messages;
};

// The connection on which the collector receives a class list. Listener only.
struct VXDiscoveryState_t {
    VXSharedSocket socket;
    VXLwsHandle discoveryWsi;
    apr_pool_t* pool;  // of one connection
};

}  // namespace vx
