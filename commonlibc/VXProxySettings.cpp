#include "commonlibc/VXProxySettings.h"

#include <apr_file_info.h>

#include <algorithm>
#include <climits>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXConfigFile.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

using Verdict = VXSettingVerdict;

constexpr int kMaxLine = 1023;
constexpr int kMaxPort = 65535;
constexpr int kUdpTimeoutWhenNone = 900;
constexpr int kDefaultUDPThreads = 10;
constexpr int kMaxAgentWebSocket = 2;
constexpr int kMaxMemMode = 2;
constexpr int kMaxMemPct = 50;
constexpr int kMinMemMB = 512, kMaxMemMB = 10240;
constexpr int kMemoryRows = 3;  // the last ones before the ceilings

bool portGiven = false;  // by the file that is being read

// What does not fit a byte is out of every bound; it stays so.
std::uint8_t byteOf(int value) {
    return static_cast<std::uint8_t>(std::clamp(value, 0, UINT8_MAX));
}

Verdict takeProxyConType(const VXProxyRow& /*row*/, const char* value) {
    int type = 0;
    if (!vxSettingNumber(value, INT_MIN, INT_MAX, &type)) return Verdict::kInvalid;
    VXProxy.vxcPort = type == 1 ? 0 : type;  // one field with vxcPort: the later line decides
    return Verdict::kTaken;
}

Verdict takeProxyPort(const VXProxyRow& /*row*/, const char* value) {
    if (!vxSettingNumber(value, 0, kMaxPort, &VXProxy.proxyPort)) return Verdict::kInvalid;
    portGiven = true;
    return Verdict::kTaken;
}

Verdict takeAgentWebSocket(const VXProxyRow& /*row*/, const char* value) {
    int kind = 0;
    if (!vxSettingNumber(value, 0, kMaxAgentWebSocket, &kind)) return Verdict::kInvalid;
    VXProxy.proxyAgentWebSocket = byteOf(kind);
    return Verdict::kTaken;
}

Verdict takeUdpTimeout(const VXProxyRow& /*row*/, const char* value) {
    int seconds = 0;
    if (!vxSettingNumber(value, INT_MIN, INT_MAX, &seconds)) return Verdict::kInvalid;
    VXProxy.proxyudpTimeout = seconds;
    VX_TRACE(1, kControlThread, kInfo, "UDP Timeout = %d", seconds);
    return Verdict::kTaken;
}

Verdict takeUdpThreads(const VXProxyRow& /*row*/, const char* value) {
    const bool valid = vxSettingNumber(value, 1, kMaxUDPThreads, &VXProxy.numUDPThreads);
    if (!valid) VXProxy.numUDPThreads = kDefaultUDPThreads;
    VX_TRACE(1, kControlThread, kInfo, "Total UDP Threads = %d", VXProxy.numUDPThreads);
    return valid ? Verdict::kTaken : Verdict::kInvalid;
}

Verdict takeVxcHost(const VXProxyRow& /*row*/, const char* value) {
    if (!checkVXCHost(value)) {
        VX_TRACE(1, kControlThread, kError, "Invalid VXC IP - %s", value);
        return Verdict::kInvalid;
    }
    char* copy = vxlb_strdup(value);
    if (!copy) return Verdict::kInvalid;
    VXLB_FREE(VXProxy.vxcHost, "text copy", -1);
    VXProxy.vxcHost = copy;
    setPrimaryVXC(value, kLeavePort);
    vxSetCollectorState(0, 1);
    VXCollectors_t& collectors = vxCurrent()->collectors;
    VXGuard lock(collectors.mutex);
    const int configured = ++collectors.num_vxc_config;
    lock.unlock();
    VX_TRACE(1, kControlThread, kInfo, "VXC Host = %d", configured);
    return Verdict::kTaken;
}

Verdict takeVxcPort(const VXProxyRow& /*row*/, const char* value) {
    if (!vxSettingNumber(value, 1, kMaxPort, &VXProxy.vxcPort)) return Verdict::kInvalid;
    vxSetCollectorPort(0, vxCurrent()->VXBCISetting.vxcPort.load(std::memory_order_relaxed));
    VX_TRACE(1, kControlThread, kInfo, "VXC Port = %d", VXProxy.vxcPort);
    return Verdict::kTaken;
}

Verdict takeMemMode(const VXProxyRow& /*row*/, const char* value) {
    int mode = 0;
    if (!vxSettingNumber(value, INT_MIN, INT_MAX, &mode)) return Verdict::kInvalid;
    VXProxy.memThresholdCheckModes = byteOf(mode);
    VX_TRACE(1, kControlThread, kInfo, "memThresholdCheckModes = %d", mode);
    if (mode >= 0 && mode <= kMaxMemMode) return Verdict::kTaken;
    VX_TRACE(1, kControlThread, kWarning, "%s",
             "memThresholdCheckModes is supported between (0-2). Default value is 0%");
    return Verdict::kKeptOutOfBounds;
}

Verdict takeMemPct(const VXProxyRow& /*row*/, const char* value) {
    int percent = 0;
    if (!vxSettingNumber(value, INT_MIN, INT_MAX, &percent)) return Verdict::kInvalid;
    VXProxy.memUsageThresholdPct = byteOf(percent);
    VX_TRACE(1, kControlThread, kInfo, "memUsageThresholdPct = %d", percent);
    if (percent >= 1 && percent <= kMaxMemPct) return Verdict::kTaken;
    VX_TRACE(1, kControlThread, kWarning, "%s",
             "memUsageThresholdPct is supported between (0-50)%. Default value is 20%");
    return Verdict::kKeptOutOfBounds;
}

Verdict takeMemSize(const VXProxyRow& /*row*/, const char* value) {
    int megabytes = 0;
    if (!vxSettingNumber(value, INT_MIN, INT_MAX, &megabytes)) return Verdict::kInvalid;
    VXProxy.memUsageThresholdSizeMB = megabytes;
    VX_TRACE(1, kControlThread, kInfo, "memUsageThresholdSizeMB = %d", megabytes);
    if (megabytes >= kMinMemMB && megabytes <= kMaxMemMB) return Verdict::kTaken;
    VX_TRACE(1, kControlThread, kWarning, "%s",
             "memUsageThresholdSizeMB is supported between 512(MB) to 10 (GB). Default value is "
             "2048(MB)");
    return Verdict::kKeptOutOfBounds;
}

Verdict takeCeiling(const VXProxyRow& row, const char* value) {
    std::int32_t& ceiling = VXProxy.ceilings.*row.ceiling;
    if (!vxSettingNumber(value, row.min, row.max, &ceiling)) {
        VX_TRACE(1, kControlThread, kError, "%s takes %d to %d; it stays %d", row.key, row.min, row.max,
                 ceiling);
        return Verdict::kInvalid;
    }
    VX_TRACE(1, kControlThread, kInfo, "%s = %d", row.key, ceiling);
    return Verdict::kTaken;
}

std::string showCeiling(const VXProxyRow& row) {
    return std::to_string(VXProxy.ceilings.*row.ceiling);
}

template <auto member>
std::string showNumber(const VXProxyRow& /*row*/) {
    return std::to_string(VXProxy.*member);
}

std::string showUdpTimeout(const VXProxyRow& /*row*/) {
    return std::to_string(VXProxy.proxyudpTimeout < 1 ? kUdpTimeoutWhenNone : VXProxy.proxyudpTimeout);
}

std::string showVxcHost(const VXProxyRow& /*row*/) {
    return VXProxy.vxcHost ? VXProxy.vxcHost : "";
}

constexpr VXProxyRow kRows[] = {
    {"proxyConType", takeProxyConType, showNumber<&VXProxy_t::vxcPort>,
     "connection type word, kept in the place of vxcPort: the later line decides (0)"},
    {"proxyPort", takeProxyPort, showNumber<&VXProxy_t::proxyPort>,
     "TCP and UDP port on which agents reach the service; 0 takes a free one (1111)"},
    {"proxyAgentWebSocket", takeAgentWebSocket, showNumber<&VXProxy_t::proxyAgentWebSocket>,
     "how agents connect: 0 plain TCP, 1 WebSocket, 2 WebSocket over TLS (0)"},
    {"proxyudpTimeout", takeUdpTimeout, showUdpTimeout,
     "seconds of silence after which a UDP function is dropped; below 1 counts as the default (900)"},
    {"numUDPThreads", takeUdpThreads, showNumber<&VXProxy_t::numUDPThreads>,
     "UDP worker threads, 1 to 100 (10)"},
    {"vxcHost", takeVxcHost, showVxcHost, "collector host where the agent settings name none"},
    {"vxcPort", takeVxcPort, showNumber<&VXProxy_t::vxcPort>,
     "collector port for that host; without one the agent settings' default counts (0)"},
    {"memThresholdCheckModes", takeMemMode, showNumber<&VXProxy_t::memThresholdCheckModes>,
     "memory watch: 0 off, 1 restart, 2 dump and restart (1)"},
    {"memUsageThresholdPct", takeMemPct, showNumber<&VXProxy_t::memUsageThresholdPct>,
     "memory limit in percent of the system's, 1 to 50 (20)"},
    {"memUsageThresholdSizeMB", takeMemSize, showNumber<&VXProxy_t::memUsageThresholdSizeMB>,
     "memory limit in MB, 512 to 10240 (2048)"},
    {"maxMethods", takeCeiling, showCeiling, "methods of one instance, 1000 to 10000000 (100000)",
     &VXCeilings::maxMethods, 1000, 10000000},
    {"maxCallers", takeCeiling, showCeiling,
     "callers that one instance keeps for tier callouts, 16 to 1000000 (4096)", &VXCeilings::maxCallers, 16,
     1000000},
    {"maxHeaderNames", takeCeiling, showCeiling, "HTTP header names of one instance, 16 to 1000000 (4096)",
     &VXCeilings::maxHeaderNames, 16, 1000000},
    {"maxExceptionRows", takeCeiling, showCeiling,
     "rows of each exception table of one instance, 256 to 10000000 (65536)", &VXCeilings::maxExceptionRows,
     256, 10000000},
    {"maxProcesses", takeCeiling, showCeiling,
     "agent processes of one instance at a time, 1 to 1000000 (16384)", &VXCeilings::maxProcesses, 1,
     1000000},
    {"maxSlots", takeCeiling, showCeiling,
     "transactions in flight in all instances together, 64 to 1000000 (16384)", &VXCeilings::maxSlots, 64,
     1000000},
    {"maxInstances", takeCeiling, showCeiling, "instances (application identities), 1 to 65536 (1024)",
     &VXCeilings::maxInstances, 1, 65536},
    {"maxUdpFunctions", takeCeiling, showCeiling,
     "functions that report by datagram at a time, 1 to 65536 (256)", &VXCeilings::maxUdpFunctions, 1, 65536},
};

// True when the line belongs to one of the rows, which then took it.
bool takeLine(std::span<const VXProxyRow> rows, const char* line, int number) {
    for (const VXProxyRow& row : rows) {
        const char* value = search_keyword(line, row.key);
        if (!value) continue;
        const Verdict verdict = row.take(row, value);
        if (verdict == Verdict::kInvalid)
            VX_TRACE(1, kControlThread, kError, "%s: line %d: value '%s' of '%s' is not valid, ignored",
                     kProxyFileName, number, value, row.key);
        vxReportSetting({kProxyFileName, number, row.key, value, verdict});
        return true;
    }
    return false;
}

void visitLine(const VXConfigLine& line) {
    if (vxReportLineFault(kProxyFileName, line, kMaxLine)) return;
    vxMakeCollectorArray(*vxCurrent());
    if (takeLine(kRows, line.text, line.number)) return;
    VX_TRACE(1, kControlThread, kWarning, "Found unknown keyword<%s>. Ignored :D :P", line.text);
    vxReportSetting({kProxyFileName, line.number, nullptr, line.text, vxVerdictOfUnknown(line.text)});
}

std::span<const VXProxyRow> memoryRows() {
    const auto* first = std::find_if(std::begin(kRows), std::end(kRows),
                                     [](const VXProxyRow& row) { return row.take == takeMemMode; });
    return {first, kMemoryRows};
}

}  // namespace

std::span<const VXProxyRow> vxProxyRows() {
    return kRows;
}

void readVXProxyConfig() {
    portGiven = false;
    vxReadProxyFile();
    if (!portGiven) return;
    getServerIP(VXProxy.proxyHost, sizeof(VXProxy.proxyHost));
    VX_TRACE(1, kControlThread, kInfo, "Proxy Port = %d and VXProxy.proxyHost = %s", VXProxy.proxyPort,
             VXProxy.proxyHost);
}

bool vxReadProxyFile() {
    char path[kConfigPathSize];
    vxConfigPath(path, sizeof(path), kProxyFileName);
    VX_TRACE(1, kControlThread, kInfo, "Proxy setting file path '%s'.", path);
    apr_finfo_t info;
    vx_stat(path, &info);
    if (vxWalkSettings(kProxyFileName, kMaxLine, visitLine)) return true;
    VX_TRACE(1, kControlThread, kError, "%s is not present, so returning.", path);
    return false;
}

int ParseProxyMemoryThreshold(const char* line) {
    return takeLine(memoryRows(), line, 0) ? 1 : 0;
}

}  // namespace vx
