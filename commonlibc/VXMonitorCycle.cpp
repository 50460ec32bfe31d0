#include "commonlibc/VXMonitorCycle.h"

#include <memory>

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/VXMonitorReport.h"
#include "commonlibc/backend/VXBackendRecords.h"
#include "commonlibc/bt/VXBTDigest.h"
#include "commonlibc/bt/VXBTRecords.h"
#include "commonlibc/mm/VXExceptionMonitor.h"
#include "commonlibc/mm/VXMethodMonitor.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr const char* kBufferName = "monitor records";
constexpr std::int32_t kSecondsPerMinute = 60;
constexpr std::int32_t kDefaultTurnsPerWalk = 5;

struct BufferFree {
    void operator()(char* buffer) const { VXLB_FREE(buffer, kBufferName, -1); }
};
using Buffer = std::unique_ptr<char, BufferFree>;

Buffer makeBuffer() {
    return Buffer(static_cast<char*>(VXLB_MALLOC(kReportBufferSize, kBufferName, -1)));
}

std::int64_t difference(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

bool isDue(std::int64_t next, std::int64_t now) {
    return difference(next, now) <= 0;
}

// The first of the times `next`, `next` + interval, ... above `now`, never more than an interval ahead.
std::int64_t nextAbove(std::int64_t next, std::int64_t now, std::int64_t interval) {
    if (interval < 1) return vxSum(now, 1);
    const std::int64_t ahead = difference(next, now);
    if (ahead > interval) return vxSum(now, interval);
    if (ahead > 0) return next;
    const auto passed = 0 - static_cast<std::uint64_t>(ahead);
    return vxSum(now, interval - static_cast<std::int64_t>(passed % static_cast<std::uint64_t>(interval)));
}

bool reportingIsOn(const vxApplication& app) {
    return vx_word_get(app.VXSys.ASSampleInterval) > 0;
}

using Generator = bool (*)(char* buffer, std::int32_t* length);
using IsOn = bool (*)(const vxApplication& app);

// The monitors in the order of a report; null: the generator looks itself.
struct MonitorRow {
    IsOn isOn;
    Generator generate;
};
constexpr MonitorRow kMonitors[] = {
    {[](const vxApplication& app) { return app.bt.isBTMonitorOn.load(std::memory_order_relaxed) != 0; },
     generateAndDumpBTMonitoringRecord},
    {[](const vxApplication& app) {
         return app.method.enableBackendMonitor.load(std::memory_order_relaxed) != 0;
     },
     generateAndDumpBackendMonitoringRecord},
    {nullptr, generateAndDumpMethodMonitoringRecord},
    {nullptr, generateAndDumpExceptionMonitoringRecord},
};

struct DigestRow {
    VXDigestSettings VXDigestState_t::*settings;
    std::int64_t VXMonitorState_t::*next;
    Generator generate;
};
constexpr DigestRow kDigests[] = {
    {&VXDigestState_t::backend, &VXMonitorState_t::nextBackendDigestTime, generateAndDumpBackendDigestRecord},
    {&VXDigestState_t::bt, &VXMonitorState_t::nextBTDigestTime, generateAndDumpBTDigestRecord},
};

void write(Generator generate, char* buffer) {
    std::int32_t length = 0;
    generate(buffer, &length);
    vxPassReport(buffer, &length);
}

void report(const vxApplication& app) {
    const Buffer buffer = makeBuffer();
    if (!buffer) return;
    for (const MonitorRow& row : kMonitors)
        if (!row.isOn || row.isOn(app)) write(row.generate, buffer.get());
}

// What a run's end leaves of a period goes out with its last report.
void writeDigests(vxApplication& app, VXMonitorPhase phase) {
    const std::int64_t now = app.monitor.curTimeStamp;
    for (const DigestRow& row : kDigests) {
        const VXDigestSettings& settings = app.digest.*row.settings;
        const std::int64_t period = settings.periodMs.load(std::memory_order_relaxed);
        std::int64_t& next = app.monitor.*row.next;
        if (!settings.type.load(std::memory_order_relaxed)) {
            next = vxSum(now, period);  // the first period begins when they are ordered
            continue;
        }
        if (phase == VXMonitorPhase::kLast || isDue(next, now))
            if (const Buffer buffer = makeBuffer()) write(row.generate, buffer.get());
        next = nextAbove(next, now, period);
    }
}

void planReport(vxApplication& app) {
    VXMonitorState_t& cycle = app.monitor;
    if (reportingIsOn(app))
        cycle.nextLoggingBufferTime = nextAbove(cycle.nextLoggingBufferTime, cycle.curTimeStamp,
                                                vx_word_get(app.VXSys.ASReportInterval));
}

void readTime(vxApplication& app) {
    app.monitor.curTimeStamp = vxlb_steady_ms();
}

void beginSession(vxApplication& app) {
    readTime(app);
    app.monitor.nextLoggingBufferTime = app.monitor.curTimeStamp;
    planReport(app);
    for (const DigestRow& row : kDigests)
        app.monitor.*row.next = vxSum(app.monitor.curTimeStamp,
                                      (app.digest.*row.settings).periodMs.load(std::memory_order_relaxed));
}

void walkIdle(vxApplication& app) {
    const std::int32_t asked = vx_word_get(app.VXBCISetting.FPMaxAllowedAgeInSec) / kSecondsPerMinute;
    if (++app.monitor.turns < (asked < 1 ? kDefaultTurnsPerWalk : asked)) return;
    app.monitor.turns = 0;
    VX_UPCALL(markLongIdleTransactions);
}

void endTurn(vxApplication& app) {
    readTime(app);
    if (reportingIsOn(app) && isDue(app.monitor.nextLoggingBufferTime, app.monitor.curTimeStamp)) report(app);
    planReport(app);
    writeDigests(app, VXMonitorPhase::kTurn);
    walkIdle(app);
}

template <class Slot>
long long unreportedIn(const VXAggregateArray<Slot>& array, std::int64_t Slot::*counter) {
    std::int64_t count = 0;
    vxAggEach(array, 1, [&](const Slot& slot) {
        const VXGuard guard(slot.mutex);
        count = vxSum(count, slot.*counter);
    });
    return count;
}

void traceUnreported(const vxApplication& app) {
    if (!reportingIsOn(app)) return;
    const long long transactions = vxUnreportedOfBts();
    const long long calls = unreportedIn(app.method.backendArr, &VXBackendMonitorDataCounters::callCount);
    const long long methods = unreportedIn(app.method.methodArr, &VXMethodMonitorDataCounters::count);
    const long long exceptions =
        unreportedIn(app.exceptionMonitor.exceptionArr, &VXExceptionMonitorDataCounters::count);
    if (!transactions && !calls && !methods && !exceptions) return;
    VX_TRACE(1, kControlThread, kWarning,
             "Monitors: lost unreported: transactions = %lld, back-end calls = %lld, method calls = %lld, "
             "exceptions = %lld",
             transactions, calls, methods, exceptions);
}

}  // namespace

void monitorCycle(VXMonitorPhase phase) {
    vxApplication& app = *vxCurrent();
    switch (phase) {
        case VXMonitorPhase::kSession:
            return beginSession(app);
        case VXMonitorPhase::kTurn:
            return endTurn(app);
        case VXMonitorPhase::kIdle:
            return walkIdle(app);
        case VXMonitorPhase::kLast:
            if (reportingIsOn(app)) report(app);
            writeDigests(app, phase);
            return;
        case VXMonitorPhase::kGone:
            return traceUnreported(app);
    }
}

}  // namespace vx
