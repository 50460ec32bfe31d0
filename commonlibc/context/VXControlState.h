// The control connection of an instance.
//
// Writer    The control thread, except where a member says otherwise.
#pragma once

#include <apr_poll.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "commonlibc/context/VXLwsState.h"
#include "commonlibc/context/VXSharedSocket.h"

namespace vx {

inline constexpr std::int32_t kControlBufSize = 0x20000;
inline constexpr std::int32_t kOutboxSize = 0x100000;
inline constexpr std::int64_t kControlPollUs = 10000000;
inline constexpr std::int64_t kDefaultRetryIntervalUs = 60000000;

// Bytes received from the collector and not consumed yet (control thread only).
struct ctrlBufInfo_t {
    char* read_socket_buf;  // kControlBufSize + 1 bytes
    std::int32_t size;
    std::int32_t readOffset, writeOffset, readBytes;
    std::uint8_t skipToNewline;  // a line longer than the buffer is being passed over
};

// Texts for the collector that other threads leave: the control thread, which owns the connection, sends
// them. `poll` is that of the connection's read loop, to be woken, or `lws`
// the connection; both null while there is none.
// Guards    mutex (a leaf): everything.
struct VXOutbox_t {
    apr_thread_mutex_t* mutex;
    char* text;  // kOutboxSize bytes, made with the first text
    std::int32_t length;
    apr_pollset_t* poll;
    VXLwsConnection* lws;
    std::uint64_t dropped;  // texts that found no room
};

struct VXControlState_t {
    ctrlBufInfo_t ctrlBufInfo;
    VXOutbox_t outbox;
    VXSharedSocket controlSocket;
    VXLwsHandle controlWsi;
    std::atomic<std::uint8_t> lws_active;                // 1: the links run over libwebsockets
    std::atomic<std::int32_t> ActiveAgentProtocolIndex;  // 1 TCP, 2 WS, 3 WSS
    std::uint8_t retryCount;                             // attempts before a failover
    std::int32_t retryAttempts;
    std::atomic<std::int64_t> retryInterval;  // microseconds; shared with the data thread
    std::int32_t heartBeatMissCount, heartBeatRounds;
    std::int32_t heartBeatSent;
    std::int64_t pollTimeUs;                      // of one round of the read loop; 0: kControlPollUs
    std::atomic<std::int64_t> lastHeartBeatTime;  // steady ms
    std::atomic<std::uint16_t> closeCtrlConFlag;  // the order that this connection goes; any thread
    std::atomic<std::uint16_t> controlConnClosed;
    std::atomic<std::int32_t> proxyStopRequested;        // set by resetAndCleanProxy
    std::int32_t requestType;                            // 0 normal, 2 reroute, 3 retry limit
    std::int64_t lastConnectionTimeStamp, connDuration;  // Unix ms; ms
    std::int64_t connectedAtMs;                          // lastConnectionTimeStamp in steady ms
    char connDestination[1024];                          // "%s:%d"
    std::atomic<std::int64_t> controlThreadId;           // 0: no control thread
    apr_thread_t* controlThread;                         // starter only: the last thread, until it is joined
    apr_pool_t* threadPool;                              // starter only: that thread's
    apr_thread_mutex_t* controlMutex;
    std::int32_t lateVerdict;  // on a connect reply that came in the read loop: 0, or why it was refused
    char destinationIP[16];    // for trace
    std::int32_t destinationPort;
};

}  // namespace vx
