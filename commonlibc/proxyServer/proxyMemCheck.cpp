#include "commonlibc/proxyServer/proxyMemCheck.h"

#include <apr_errno.h>
#include <apr_file_info.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_outbox.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/platform/vx_platform_memory.h"
#include "commonlibc/proxyServer/vx_udp_functions.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int64_t kMinTotalMB = 1025, kMaxTotalMB = 1024999;
constexpr std::uint8_t kModeOff = 0, kModeDump = 2;
constexpr std::int64_t kAlertUs = 2000000, kAlertStepUs = 10000;
constexpr std::int64_t kLwsFlushUs = 200000;  // of these: for what libwebsockets has taken and not sent yet
constexpr std::size_t kMaxCoreFiles = 100;
constexpr std::size_t kKeptDumps = 3;
constexpr std::int64_t kDumpSpanUs = 3600000000;
constexpr std::size_t kPathSize = 4096;

// What every line and the alert tell of the settings.
#define VX_MEMORY_SETTINGS \
    "memThresholdCheckModes=%d, memUsageThresholdPct=%d, memUsageThresholdSizeMB = %d, TotalSystemMemory=%d"
#define VX_MEMORY_SETTING_VALUES                                                                   \
    VXProxy.memThresholdCheckModes, VXProxy.memUsageThresholdPct, VXProxy.memUsageThresholdSizeMB, \
        VXProxy.TotalSystemMemory

int percentOf(std::int64_t usedMB) {
    return static_cast<int>(usedMB * 100 / VXProxy.TotalSystemMemory);
}

void traceUsage(const char* verdict, int severityOfError, int usedMB) {
    char text[512];
    std::snprintf(text, sizeof(text),
                  "ZorVXProxy memory usage is %s. " VX_MEMORY_SETTINGS "(MB), proxyUsedMem=%d(MB) (%d %%)",
                  verdict, VX_MEMORY_SETTING_VALUES, usedMB, percentOf(usedMB));
    if (severityOfError)
        VX_TRACE(1, kControlThread, kError, "MemoryThresholds: %s", text);
    else
        VX_TRACE(2, kControlThread, kInfo, "MemoryThresholds: %s", text);
}

// The first context whose control connection is read; null without any.
vxApplication* connectedInstance() {
    const std::int32_t count = VXProxy.numInstance.load(std::memory_order_acquire);
    for (std::int32_t i = 0; i < count; ++i) {
        vxApplication* app = instanceAt(i);
        if (app && vxOutboxWaiting(*app) >= 0) return app;
    }
    return nullptr;
}

// Leaves the alert with the owner of the context's connection, and waits until it is on its way.
void alert(vxApplication& app, int usedMB) {
    const bool dumps = VXProxy.memThresholdCheckModes == kModeDump;
    char text[1024];
    const int length = std::snprintf(
        text, sizeof(text),
        "agent_event:Version=1.0;Severity=1;Message=     ZorVXProxy used memory (%d MB) exceeded threshold.  "
        "   Proxy will be restarted%s. MemoryThresholds: " VX_MEMORY_SETTINGS " MB     \n",
        usedMB, dumps ? "( and generated proc dump)" : "", VX_MEMORY_SETTING_VALUES);
    if (!vxOutboxPut(app, text, static_cast<std::size_t>(length))) return;
    const bool overLws = app.control.lws_active.load(std::memory_order_acquire) == 1;
    const std::int64_t most = overLws ? kAlertUs - kLwsFlushUs : kAlertUs;
    for (std::int64_t waited = 0; waited < most && vxOutboxWaiting(app) > 0; waited += kAlertStepUs)
        vxlb_sleep_us(kAlertStepUs);
    if (overLws) vxlb_sleep_us(kLwsFlushUs);
    VX_TRACE(1, kControlThread, kInfo, "MemoryThresholds: SendToVXC: %s", text);
}

struct DumpFile {
    apr_time_t written;
    std::string name;
};

// The dumps of the folder, at most kMaxCoreFiles. False when it cannot be read.
bool listDumps(const char* folder, std::vector<DumpFile>& dumps) {
    const VXPool pool(nullptr);
    apr_dir_t* opened = nullptr;
    const apr_status_t status = apr_dir_open(&opened, folder, pool.get());
    if (status != APR_SUCCESS) {
        char error[256];
        VX_TRACE(1, kControlThread, kError, "MemoryThresholds: Path not found: %s. Error: %s", folder,
                 apr_strerror(status, error, sizeof(error)));
        return false;
    }
    apr_finfo_t entry{};
    while (dumps.size() < kMaxCoreFiles &&
           apr_dir_read(&entry, APR_FINFO_NAME | APR_FINFO_TYPE | APR_FINFO_MTIME, opened) == APR_SUCCESS) {
        if (entry.filetype == APR_REG && std::string_view(entry.name).starts_with(kDumpPrefix))
            dumps.push_back({entry.mtime, entry.name});
    }
    apr_dir_close(opened);
    if (dumps.size() == kMaxCoreFiles)
        VX_TRACE(1, kControlThread, kWarning,
                 "MemoryThresholds: Too many files, increase MAX_CORE_FILES limit");
    return true;
}

}  // namespace

void vxLearnTotalMemory() {
    const std::int64_t total = vx_platform_total_memory_mb();
    if (total >= kMinTotalMB && total <= kMaxTotalMB) {
        const std::int64_t limit = vx_platform_memory_limit_mb();
        VXProxy.TotalSystemMemory = static_cast<std::int32_t>(limit > 0 ? std::min(total, limit) : total);
        VX_TRACE(1, kControlThread, kInfo, "MemoryThresholds: " VX_MEMORY_SETTINGS "(MB)",
                 VX_MEMORY_SETTING_VALUES);
    }
    if (VXProxy.TotalSystemMemory != 0) return;
    VX_TRACE(1, kControlThread, kError,
             "MemoryThresholds: failed to get total system memory. Memory Check is disabled. totalMemoryInMB "
             "%d",
             static_cast<int>(total));
    VXProxy.memThresholdCheckModes = kModeOff;
}

bool vxBeyondMemoryLimit(std::int64_t usedMB) {
    return usedMB > VXProxy.memUsageThresholdSizeMB || percentOf(usedMB) > VXProxy.memUsageThresholdPct;
}

void checkMemoryUsage() {
    const std::int64_t resident = vx_platform_resident_mb();
    if (resident < 0) {
        VX_TRACE(1, kControlThread, kError, "MemoryThresholds: failed to query proxy");
        return;
    }
    if (resident == 0) {
        VX_TRACE(1, kControlThread, kError, "MemoryThresholds: failed to get proxy used memory");
        return;
    }
    if (VXProxy.TotalSystemMemory == 0) return;
    const int used = static_cast<int>(resident);
    VX_TRACE(2, kControlThread, kInfo, "MemoryThresholds: " VX_MEMORY_SETTINGS "(MB), used=%d(MB) (%d %%)",
             VX_MEMORY_SETTING_VALUES, used, percentOf(used));
    if (VXProxy.memThresholdCheckModes == kModeOff) return;
    const bool beyond = vxBeyondMemoryLimit(used);
    traceUsage(beyond ? "beyond threshold" : "normal", beyond, used);
    if (!beyond) return;
    sendAlertToVXC(used);
    if (VXProxy.memThresholdCheckModes == kModeDump) GenerateCoreDump();
    _exit(kMemoryExitCode);
}

void sendAlertToVXC(int usedMB) {
    if (vxApplication* app = connectedInstance()) return alert(*app, usedMB);
    bool told = false;  // there may be functions only
    vxUdpEachFunction([&](vxApplication& app) {
        if (told || vxOutboxWaiting(app) < 0) return;
        told = true;
        alert(app, usedMB);
    });
}

void GenerateCoreDump() {
    const char* home = getVXHome();
    char folder[kPathSize];
    vx_path_join(folder, sizeof(folder), home, "logs");
    if (!ShouldGenerateCoreDump(folder)) return;
    VX_TRACE(1, kControlThread, kInfo, "procdump = %s,proxypath = %s", kDumpTool, home);
    char command[2 * kPathSize];
    const int code = vx_platform_dump_process(folder, kDumpPrefix, command, sizeof(command));
    VX_TRACE(1, kControlThread, kInfo, "MemoryThresholds: the dump tool ended with %d", code);
    // Whoever reads this line knows it as the mark of a command that ended with 0.
    if (code == 0)
        VX_TRACE(1, kControlThread, kError, "MemoryThresholds: Failed to take proc dump. Command %s",
                 command);
}

bool ShouldGenerateCoreDump(const char* folder) {
    std::vector<DumpFile> dumps;
    if (!listDumps(folder, dumps) || dumps.size() < kKeptDumps) return true;
    std::sort(dumps.begin(), dumps.end(),
              [](const DumpFile& a, const DumpFile& b) { return a.written > b.written; });
    for (std::size_t i = kKeptDumps; i < dumps.size(); ++i) {
        char path[kPathSize];
        vx_path_join(path, sizeof(path), folder, dumps[i].name.c_str());
        if (std::remove(path) == 0) VX_TRACE(1, kControlThread, kInfo, "Deleted file %s", path);
    }
    return std::llabs(vxlb_now_us() - dumps[kKeptDumps - 1].written) >= kDumpSpanUs;
}

}  // namespace vx
