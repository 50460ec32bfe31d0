// Trace log: one bounded plain-text facility for the whole process.
//
// A call site tests the handle and the level of its module in the current context, and only then formats.
// Two files alternate (suffix _0 and _1), each of at most BCITraceMaxSize bytes, under "<home>/logs".
// A line starts with a newline, so a partly written last line is never joined with the next.
//
// Levels    1 to 4; 0 writes whenever the handle exists. A null context counts as level 0.
// Limits    A line is cut at 10,239 bytes.
// Errors    A file that cannot be opened drops the line; the next call tries again.
// Threads   Any. The line is formatted outside the mutex; stream, write and flush are one critical section.
#pragma once

#include <atomic>
#include <cstdint>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

enum class TraceModule : std::uint8_t {
    kControlThread,
    kMemory,
    kFlowpath,
    kBtMon,
    kIpMon,
    kMethodMon,
    kExcpMon,
    kThreadMon,
    kAgentLog,  // log lines that agents send
    kCount
};
enum class TraceSeverity : std::uint8_t { kInfo, kError, kWarning, kNone };

struct VXTraceLog;
extern std::atomic<VXTraceLog*> trace_log_key;  // null: tracing is off

// Builds the logs folder and the file names ("vx_trace_%s_%s_%s_%d.log"); the file opens with the first
// line. A null poolName leaves that element out. An earlier handle is retired.
void VXTraceInit(const char* processName, const char* poolName);
// Turns tracing off and closes the files (tests, process end).
void VXTraceClose();

// The trace level of a module in the current context; 0 without a context.
inline int vxTraceLevel(TraceModule module) noexcept {
    const vxApplication* app = vxCurrent();
    if (!app) return 0;
    const VXSys_t& sys = app->VXSys;
    switch (module) {
        case TraceModule::kMemory:
            return vx_word_get(sys.memoryTraceLevel);
        case TraceModule::kFlowpath:
            return vx_word_get(sys.enableFPTrace);
        case TraceModule::kBtMon:
            return vx_word_get(sys.enableBTMonitorTrace);
        case TraceModule::kIpMon:
            return vx_word_get(sys.enableBackendMonTrace);
        case TraceModule::kMethodMon:
            return vx_word_get(sys.vxMethodMonTraceLevel);
        case TraceModule::kExcpMon:
            return vx_word_get(sys.captureExceptionTraceLevel);
        case TraceModule::kThreadMon:
            return vx_word_get(sys.enableThreadMonTraceLevel);
        default:
            return vx_word_get(sys.ControlThreadTraceLevel);
    }
}
inline bool vxTraceOn(int level, TraceModule module) noexcept {
    return trace_log_key.load(std::memory_order_relaxed) && vxTraceLevel(module) >= level;
}

// Where a line comes from; filled by the macro.
struct VXTraceSite {
    const char* file;  // any path; only its last element is written
    int line;
    const char* function;
};
// Formats and writes one line. Callers use the macro, which tests the level first.
void vxTraceWrite(const VXTraceSite& site, TraceModule module, TraceSeverity severity, const char* format,
                  ...) __attribute__((format(printf, 4, 5)));

}  // namespace vx

// VX_TRACE(level, module, severity, format, ...): module and severity without their enum's name, as in
// VX_TRACE(1, kControlThread, kInfo, "Proxy Started at '%s:%d'", host, port).
#define VX_TRACE(level, module, severity, ...)                                            \
    do {                                                                                  \
        if (::vx::vxTraceOn((level), ::vx::TraceModule::module))                          \
            ::vx::vxTraceWrite({__FILE__, __LINE__, __func__}, ::vx::TraceModule::module, \
                               ::vx::TraceSeverity::severity, __VA_ARGS__);               \
    } while (0)
