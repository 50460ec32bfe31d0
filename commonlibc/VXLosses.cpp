#include "commonlibc/VXLosses.h"

#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int64_t kWalkUs = 60000000;

std::int64_t lastWalkUs = 0;  // listener

// `app` is current.
void tell(vxApplication& app, bool grownOrNot) {
    if (!vxTraceOn(1, TraceModule::kControlThread)) return;
    const VXLossTotals now = vxLossTotals(app);
    VXLossState_t& told = app.losses;
    const VXGuard lock(told.mutex);
    const bool grown =
        now.records != told.records || now.starts != told.starts || now.messages != told.messages;
    if (!grown && !grownOrNot) return;
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    VX_TRACE(1, kControlThread, kWarning,
             "Losses: records = %llu (+%llu), starts = %llu (+%llu), messages = %llu (+%llu)",
             number(now.records), number(now.records - told.records), number(now.starts),
             number(now.starts - told.starts), number(now.messages), number(now.messages - told.messages));
    told.records = now.records;
    told.starts = now.starts;
    told.messages = now.messages;
}

}  // namespace

VXLossTotals vxLossTotals(const vxApplication& app) {
    return {app.data.chain.recordsDropped.load(std::memory_order_relaxed) +
                app.autoSensor.chain.recordsDropped.load(std::memory_order_relaxed),
            app.flowpath.startsRefused.load(std::memory_order_relaxed),
            app.decoder.messagesRefused.load(std::memory_order_relaxed)};
}

void vxLossesWalk() {
    const std::int64_t nowUs = vxlb_steady_us();
    if (nowUs - lastWalkUs < kWalkUs) return;
    lastWalkUs = nowUs;
    if (!VXProxyInstance.load(std::memory_order_acquire)) return;
    const std::int32_t count = VXProxy.numInstance.load(std::memory_order_acquire);
    for (std::int32_t i = 1; i < count; ++i) {
        if (vxApplication* app = instanceAt(i)) vxLossesTell(*app);
    }
}

void vxLossesTell(vxApplication& app) {
    vxApplication* const before = vxCurrent();
    vxSetCurrent(&app);
    tell(app, false);
    vxSetCurrent(before);
}

void vxLossesAtThreadEnd(vxApplication& app) {
    if (app.data.data_thread_running.load() || app.autoSensor.autoSensor_thread_running.load()) return;
    tell(app, true);
}

}  // namespace vx
