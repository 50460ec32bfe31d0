#include "commonlibc/proxyServer/vx_udp_refusals.h"

#include <atomic>

#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

std::atomic<std::uint64_t> refused{0};           // since process start
std::atomic<std::uint64_t> refusedAtTelling{0};  // the client watcher's

}  // namespace

bool vxUdpTracesRefusal() {
    return refused.load(std::memory_order_relaxed) - refusedAtTelling.load(std::memory_order_relaxed) <
           kRefusalsTraced;
}

void vxUdpCountRefusal() {
    refused.fetch_add(1, std::memory_order_relaxed);
}

void vxUdpTellRefusedMessages() {
    const std::uint64_t now = refused.load(std::memory_order_relaxed);
    const std::uint64_t growth = now - refusedAtTelling.exchange(now, std::memory_order_relaxed);
    if (growth <= kRefusalsTraced) return;
    VX_TRACE(1, kControlThread, kWarning, "UDP messages refused: %llu (+%llu)",
             static_cast<unsigned long long>(now), static_cast<unsigned long long>(growth));
}

}  // namespace vx
