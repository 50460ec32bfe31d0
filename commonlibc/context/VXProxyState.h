// Process-wide settings and listener state.
//
// Writer    agent_init before any other thread exists; afterwards the listener thread, except where a
//           member says otherwise.
#pragma once

#include <apr_network_io.h>
#include <apr_poll.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <atomic>
#include <cstdint>

namespace vx {

struct vxApplication;
struct VXPerThreadData_t;

inline constexpr std::int32_t kInstanceTableStart = 32;
inline constexpr std::int32_t kInstanceTableStep = 16;
inline constexpr std::int32_t kReadBufSize = 131072;
inline constexpr std::int32_t kPollsetSize = 2048;

// A read buffer of the listener; contents never survive to the next event.
struct VXReadBuffer {
    char* buffer;  // kReadBufSize + 1 bytes
    std::int32_t size, readOffset, writeOffset, remaining;
};

inline constexpr std::int32_t kMaxUDPThreads = 100;

// Operations queued for the thread that owns a flowpath.
struct VXThreadOp {
    std::int32_t code;  // 0: reset a flowpath
    vxApplication* app;
    VXPerThreadData_t* slot;
    std::uint64_t busySerial;  // the slot's when the operation was queued: another one says that it has gone
    std::int64_t flowpathInstance;  // for traces
};
// Guards    mutex (a leaf): everything but `opCount`, which is written under it and read by any.
struct VXThreadOpsQueue {
    std::atomic<std::uint16_t> opCount;
    std::uint16_t arrSize, workerId;
    VXThreadOp* arrThreadOp;
    apr_thread_mutex_t* mutex;
    void (*wake)(VXThreadOpsQueue& queue);  // wakes the owner thread; null: it needs none
    std::uint32_t totalQueued, totalProcessed, processedNow, ignored;
};

// What tables may grow to; keys of proxysetting.conf.
struct VXCeilings {
    std::int32_t maxMethods = 100000;       // per instance
    std::int32_t maxCallers = 4096;         // per instance
    std::int32_t maxHeaderNames = 4096;     // per instance
    std::int32_t maxExceptionRows = 65536;  // per table of an instance
    std::int32_t maxProcesses = 16384;      // per instance
    std::int32_t maxSlots = 16384;          // transactions in flight, all instances together
    std::int32_t maxInstances = 1024;
    std::int32_t maxUdpFunctions = 256;
};

struct VXProxy_t {
    std::uint8_t proxyMode;               // 1 once agent_init has assigned the proxy host
    std::uint8_t memThresholdCheckModes;  // default 1
    std::uint8_t memUsageThresholdPct;    // default 20
    std::uint8_t proxyUnixDomain;         // nothing sets it
    std::uint8_t proxyAgentWebSocket;     // agents come over: 0 TCP, 1 WebSocket, 2 WebSocket over TLS
    char* vxHomePath;
    char* vxcHost;
    char proxyHost[256];                   // default "127.0.0.1"
    std::int32_t proxyPort;                // default 1111; the bound port after the bind
    std::int32_t vxcPort;                  // shared with the keyword proxyConType
    std::int64_t proxyudpTimeout;          // seconds; below 1 means 900
    std::int32_t numUDPThreads;            // default 10
    std::int32_t udpTableSize;             // default 32
    std::int32_t instanceTableSize;        // default 32
    std::int32_t memUsageThresholdSizeMB;  // default 2048
    std::int32_t TotalSystemMemory;        // MB
    VXCeilings ceilings;
    std::atomic<std::int32_t> numInstance;
    std::int32_t numUDPFunctions, numUDPAttached;  // VXUdp.registration
    apr_pool_t* listenerPool;                      // listener alone
    apr_socket_t* listenSocket;
    apr_pollset_t* pollset;
    VXReadBuffer controlBuf, dataBuf, discoveryBuf;
    VXThreadOpsQueue threadOps;                          // of the listener
    VXThreadOpsQueue* workerOps[kMaxUDPThreads];         // of the UDP workers, by their index; or null
    std::atomic<std::atomic<vxApplication*>*> attached;  // attached-client table, as long as VXProxyInstance
    std::int32_t polledSockets;                          // entries of the pollset
    std::uint64_t socketsRefused;                        // closed because the pollset or a list was full
    std::atomic<std::uint8_t> listenerRunning;           // 1 while vxProxyInit is in its loop
};

}  // namespace vx
