#include "commonlibc/vxlb_trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace_failure.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::size_t kPathSize = 1024;
constexpr std::size_t kLineSize = 10240;
constexpr std::int64_t kDefaultMaxSize = 104857600;
constexpr const char* kHeaderLine =
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line "
    "number|Function|Severity|Message";
constexpr const char* kHeaderRemark = "";  // the header's second line
constexpr const char* kThreadName = "(null)";
constexpr const char* kNoTime = "Error";

constexpr const char* kModuleNames[] = {"CONTROL_THREAD", "MEMORY",   "FLOWPATH",   "BT_MON",   "IP_MON",
                                        "METHOD_MON",     "EXCP_MON", "THREAD_MON", "AGENT-LOG"};
static_assert(std::size(kModuleNames) == static_cast<std::size_t>(TraceModule::kCount));
constexpr const char* kSeverityNames[] = {"Info", "Error", "Warning", ""};

}  // namespace

struct VXTraceLog {
    std::size_t active = 0;  // index of the file that takes the lines
    char path[2][kPathSize] = {};
    bool writeHeader = true;  // the next opened file begins with the header line
    std::int64_t size = 0;    // bytes of lines in the active file
    std::uint64_t lost = 0;   // lines that could not be written since the last one that could
    VXFile stream[2];
};

std::atomic<VXTraceLog*> trace_log_key{nullptr};
VXTraceFailure vxTraceFailure = nullptr;

namespace {

// Guards the handle and all that it holds, from getting the stream to the flush. A leaf: nothing that could
// trace is called under it.
constinit std::mutex traceMutex;

const char* lastElement(const char* path) noexcept {
    const char* separator = std::strrchr(path, kPathSeparator);
    return separator ? separator + 1 : path;
}

std::int64_t maxFileSize() noexcept {
    const vxApplication* app = vxCurrent();
    const std::int64_t size = app ? vx_word_get(app->VXSys.BCITraceMaxSize) : 0;
    return size > 0 ? size : kDefaultMaxSize;
}

void openStream(VXTraceLog& log) {
    VXFile& stream = log.stream[log.active];
    stream.reset(std::fopen(log.path[log.active], "ae"));
    log.size = 0;
    if (!stream) return;
    std::setvbuf(stream.get(), nullptr, _IONBF,
                 0);  // what a full disk refuses does not come later, in pieces
    if (!log.writeHeader) return;
    std::fprintf(stream.get(), "%s\n%s", kHeaderLine, kHeaderRemark);
    log.writeHeader = false;
}

// Turns to the other file; what it held of an earlier turn goes.
void rotate(VXTraceLog& log) {
    log.active = 1 - log.active;
    if (log.stream[log.active]) {
        log.stream[log.active].reset();
        std::remove(log.path[log.active]);
    }
    log.writeHeader = true;
    openStream(log);
}

std::FILE* activeStream(VXTraceLog& log, std::int64_t maxSize) {
    if (log.size >= maxSize) rotate(log);
    if (!log.stream[log.active]) openStream(log);
    return log.stream[log.active].get();
}

// The lines between the last one of the file and the next.
void tellLost(VXTraceLog& log, std::FILE* stream) {
    const int written =
        std::fprintf(stream, "\n#%llu lines could not be written", static_cast<unsigned long long>(log.lost));
    if (written > 0) log.lost = 0;
}

void writeLine(const char* line, std::size_t length, std::int64_t maxSize) {
    const std::lock_guard lock(traceMutex);
    VXTraceLog* log = trace_log_key.load(std::memory_order_acquire);
    if (!log) return;
    errno = 0;
    std::FILE* stream = activeStream(*log, maxSize);
    if (stream && log->lost) tellLost(*log, stream);
    const std::size_t written = stream ? std::fwrite(line, 1, length, stream) : 0;
    log->size += static_cast<std::int64_t>(written);
    if (written == length) return;
    if (log->lost++ == 0 && vxTraceFailure) vxTraceFailure(log->path[log->active], errno);
}

void lineTime(char* out, std::size_t size) {
    const std::int64_t now = vxlb_now_us();
    VXCalendar at{};
    if (!vx_platform_local_time(now, &at)) {
        vxlb_copy_text(out, size, kNoTime);
        return;
    }
    std::snprintf(out, size, "%02d/%02d/%02d %02d:%02d:%02d:%03d", at.month, at.day, at.year - 2000, at.hour,
                  at.minute, at.second, static_cast<int>(now / 1000 % 1000));
}

void testRunText(char* out, std::size_t size) {
    const vxApplication* app = vxCurrent();
    const int run = app ? app->VXBCISetting.testRunIndex.load(std::memory_order_relaxed) : 0;
    if (run) {
        std::snprintf(out, size, "TR%d", run);
    } else {
        vxlb_copy_text(out, size, "******");
    }
}

// The fields ahead of the message; what snprintf answers (kLineSize or above: no room for a message).
int linePrefix(char (&line)[kLineSize], const VXTraceSite& site, TraceModule module, TraceSeverity severity) {
    char time[64];
    char run[16];
    lineTime(time, sizeof(time));
    testRunText(run, sizeof(run));
    return std::snprintf(line, sizeof(line), "\n%s|%s|%s|%lld|%s|%s|%d|%s|%s|", time, run, kThreadName,
                         static_cast<long long>(vx_platform_thread_id()),
                         kModuleNames[static_cast<std::size_t>(module)], lastElement(site.file), site.line,
                         site.function, kSeverityNames[static_cast<std::size_t>(severity)]);
}

const char* homeFolder() {
    const vxApplication* app = vxCurrent();
    if (const char* home = app ? app->VXSys.vxHomePath.get() : nullptr) return home;
    return VXProxy.vxHomePath ? VXProxy.vxHomePath : "";
}

void fileName(char* out, std::size_t size, const char* processName, const char* poolName) {
    char stamp[64];
    VXCalendar at{};
    if (vx_platform_local_time(vxlb_now_us(), &at)) {
        std::snprintf(stamp, sizeof(stamp), "%02d%02d%02d%02d%02d%02d", at.year, at.month, at.day, at.hour,
                      at.minute, at.second);
    } else {
        vxlb_copy_text(stamp, sizeof(stamp), kNoTime);
    }
    const int pid = static_cast<int>(vx_platform_process_id());
    if (!processName) processName = "";
    if (poolName) {
        std::snprintf(out, size, "vx_trace_%s_%s_%s_%d.log", processName, poolName, stamp, pid);
    } else {
        std::snprintf(out, size, "vx_trace_%s_%s_%d.log", processName, stamp, pid);
    }
}

void setPaths(VXTraceLog& log, const char* folder, const char* name) {
    const char* const suffixes[] = {"_0", "_1"};
    for (std::size_t i = 0; i < std::size(suffixes); ++i) {
        // The suffix has its room: two cut paths must not become the same file.
        const std::size_t length = vx_path_join(log.path[i], kPathSize - 2, folder, name);
        vxlb_copy_text(log.path[i] + length, kPathSize - length, suffixes[i]);
    }
}

// The former handle goes under the mutex: whoever writes reads the handle there.
void replaceHandle(std::unique_ptr<VXTraceLog> log) {
    const std::lock_guard lock(traceMutex);
    delete trace_log_key.exchange(log.release(), std::memory_order_acq_rel);
}

}  // namespace

void VXTraceInit(const char* processName, const char* poolName) {
    char folder[kPathSize];
    char name[kPathSize];
    vx_path_join(folder, sizeof(folder), homeFolder(), "logs");
    makeDir(folder);  // a folder that cannot be made costs the lines, nothing else
    fileName(name, sizeof(name), processName, poolName);
    std::unique_ptr<VXTraceLog> log(new (std::nothrow) VXTraceLog);
    if (log) setPaths(*log, folder, name);
    replaceHandle(std::move(log));
}

void VXTraceClose() {
    replaceHandle(nullptr);
}

void vxTraceWrite(const VXTraceSite& site, TraceModule module, TraceSeverity severity, const char* format,
                  ...) {
    char line[kLineSize];
    const int prefix = linePrefix(line, site, module, severity);
    if (prefix < 0 || static_cast<std::size_t>(prefix) >= sizeof(line)) return;

    const auto head = static_cast<std::size_t>(prefix);
    va_list arguments;
    va_start(arguments, format);
    const int message = std::vsnprintf(line + head, sizeof(line) - head, format, arguments);
    va_end(arguments);
    if (message < 0) return;
    writeLine(line, std::min(head + static_cast<std::size_t>(message), sizeof(line) - 1), maxFileSize());
}

}  // namespace vx
