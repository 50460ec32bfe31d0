// The collectors an instance may use, and the protocols to reach them.
//
// Guards    Records are written and copied under `mutex`; protocol arrays belong to the settings passes
//           and the control thread.
#pragma once

#include <apr_thread_mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr std::int32_t kCollectorStep = 5;  // records made at a time
inline constexpr std::size_t kHostSize = 256;
inline constexpr int kProtocolSlots = 5;
inline constexpr std::int32_t kProtocolTCP = 1, kProtocolWS = 2, kProtocolWSS = 3;

struct VXCollectorRecord {
    std::uint8_t state;  // 1: in use; the reply's state lands here too
    std::int32_t port;
    char host[kHostSize];  // empty: none
    std::int32_t isSaas;
    std::int32_t givenPort;  // `port` as settings or a reroute gave it; negotiation may have changed that
    std::int32_t protocol;   // how it is reached: 1 TCP, 2 WS, 3 WSS; 0: not tried, as configured
};

struct VXCollectors_t {
    apr_thread_mutex_t* mutex;
    VXCollectorRecord* vxc_server_arr;
    std::int32_t vxc_server_list_size;
    std::int32_t activeVXC;       // index of the record in use, -1 before the first choice
    std::int32_t activeVXCIndex;  // index used by get_active_vxc
    std::int32_t num_vxc_config;  // records with a host
    std::int32_t activeOnMaster;
    std::atomic<std::uint8_t> dr_enabled, dr_switch_pending;
    std::atomic<std::int32_t> clusterMode;
    std::int32_t supportedProtocolArray[kProtocolSlots];     // what the agent supports; 0 empty
    std::int32_t supportedProtocolVXCArray[kProtocolSlots];  // what the collector offers; 0 empty
};

}  // namespace vx
