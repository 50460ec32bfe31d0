// Who an instance is to its agents, and the processes that stand under it.
//
// Writer    The listener thread, before the instance is published, except where a member says otherwise.
// Readers   Any thread of the instance.
// Lifetime  As the instance: never removed. A process record never moves; a free record has pid -1.
#pragma once

#include <apr_thread_mutex.h>

#include <atomic>
#include <cstdint>

#include "commonlibc/context/VXSharedSocket.h"

namespace vx {

struct VXMap;
struct VXAgentWs;  // VXAgentWs.h

inline constexpr std::size_t kIdentitySize = 1024;  // identity strings, terminator included
inline constexpr std::size_t kAgentTypeSize = 64;
inline constexpr std::int32_t kProcessStep = 500;    // first size of the process table
inline constexpr std::int32_t kProcessGrowAt = 490;  // grows when numProcess % 500 is this

// Address of a connection in the registry; what a poll entry carries.
struct epollPtr_t {
    std::int32_t appIndex;
    std::int32_t procIndex;
};

// One agent process. Handles are put and closed by the listener; other threads send under sendMutex. A
// connection has a socket or, while the listener serves WebSockets, a WebSocket, never both.
struct processInfo_t {
    std::atomic<std::uint32_t> firstWord;               // records accepted reset it to 0; nothing raises it
    std::int32_t controlFd, dataFd, asFd, discoveryFd;  // descriptors, -1 when closed (listener only)
    std::atomic<std::int64_t> pid;                      // -1: the slot is free
    char* dataBuffer;  // heap or null: what the last read of the data connection left of a record
    VXSharedSocket control, data, autoSensor, discovery;
    std::atomic<VXAgentWs*> controlWs, dataWs, asWs, discoveryWs;  // put and cleared under sendMutex
    char* discoveryTail;  // heap or null: what lay behind the last newline of the discovery connection
    std::int32_t discoveryTailLength;
    epollPtr_t* epollPtr;           // the process's own pair; outlives its connections
    apr_thread_mutex_t* sendMutex;  // a message goes out whole under it; before closeMutex
};

struct VXIdentity_t {
    char* agentName;  // kIdentitySize bytes each, set once before publication
    char* tierName;
    char* appServerName;
    char* appName;
    char* agentType;                   // kAgentTypeSize bytes
    char* startInstrumentation;        // heap or null; guarded by messageMutex
    apr_thread_mutex_t* messageMutex;  // before a process's sendMutex; never under the decode lock
    char* attributes;
    char* tags;
    char* funcName;                             // UDP clients only
    char* lookupKey;                            // UDP functions only
    std::atomic<std::int32_t> numProcess;       // records ever used; grows, never shrinks
    std::atomic<std::int32_t> activeProcesses;  // connected agents
    std::atomic<processInfo_t**> processInfo;   // published table of records; retired when replaced
    std::int32_t processCapacity;               // records the table has room for (listener only)
    std::atomic<std::int32_t> udpTimeoutFlag;   // orders the control thread to close
    std::int64_t startTimeMs;                   // identity populated, Unix ms
    std::int64_t connectStartTimeMs;            // make_connection_with_vxc, steady ms
    VXMap* reservedMap;                         // exists, empty, from registration on
    VXMap* udpClientMap;                        // UDP client addresses by 16-bit port
    std::uint8_t isUDP;                         // 1: a UDP function
    std::uint8_t isProxyInstance;               // 1: set by initializeVXApplicationGlobal
    std::int32_t appIndex;                      // own index in VXProxyInstance, 0 for the root
};

}  // namespace vx
