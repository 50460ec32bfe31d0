#include "commonlibc/VXProxySettings.h"

#include <apr_file_info.h>

#include <algorithm>
#include <cstdlib>
#include <span>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXConfigFile.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr const char* kFileName = "proxysetting.conf";
constexpr std::size_t kMaxLine = 1023;
constexpr int kDefaultUDPThreads = 10, kMaxUDPThreads = 100;
constexpr int kMaxMemMode = 2;
constexpr int kMaxMemPct = 50;
constexpr int kMinMemMB = 512, kMaxMemMB = 10240;

void takeProxyConType(const char* value) {
    const int type = vxNumberOf(value);
    VXProxy.vxcPort = type == 1 ? 0 : type;  // one field with vxcPort: the later line decides
}

void takeProxyPort(const char* value) {
    VXProxy.proxyPort = vxNumberOf(value);
    getServerIP(VXProxy.proxyHost, sizeof(VXProxy.proxyHost));
    VX_TRACE(1, kControlThread, kInfo, "Proxy Port = %d and VXProxy.proxyHost = %s", VXProxy.proxyPort,
             VXProxy.proxyHost);
}

void takeUdpTimeout(const char* value) {
    VXProxy.proxyudpTimeout = std::strtoll(value, nullptr, 10);
    VX_TRACE(1, kControlThread, kInfo, "UDP Timeout = %d", static_cast<int>(VXProxy.proxyudpTimeout));
}

void takeUdpThreads(const char* value) {
    const int count = vxNumberOf(value);
    VXProxy.numUDPThreads = count >= 1 && count <= kMaxUDPThreads ? count : kDefaultUDPThreads;
    VX_TRACE(1, kControlThread, kInfo, "Total UDP Threads = %d", VXProxy.numUDPThreads);
}

void takeVxcHost(const char* value) {
    if (!checkVXCHost(value)) {
        VX_TRACE(1, kControlThread, kError, "Invalid VXC IP - %s", value);
        return;
    }
    char* copy = vxlb_strdup(value);
    if (!copy) return;
    VXLB_FREE(VXProxy.vxcHost, "text copy", -1);
    VXProxy.vxcHost = copy;
    setPrimaryVXC(value, kLeavePort);
    vxSetCollectorState(0, 1);
    VXCollectors_t& collectors = vxCurrent()->collectors;
    VXGuard lock(collectors.mutex);
    const int configured = ++collectors.num_vxc_config;
    lock.unlock();
    VX_TRACE(1, kControlThread, kInfo, "VXC Host = %d", configured);
}

void takeVxcPort(const char* value) {
    VXProxy.vxcPort = vxNumberOf(value);
    vxSetCollectorPort(0, vxCurrent()->VXBCISetting.vxcPort.load(std::memory_order_relaxed));
    VX_TRACE(1, kControlThread, kInfo, "VXC Port = %d", VXProxy.vxcPort);
}

// What does not fit a byte is out of every bound; it stays so.
std::uint8_t byteOf(int value) {
    return static_cast<std::uint8_t>(std::clamp(value, 0, UINT8_MAX));
}

void takeMemMode(const char* value) {
    const int mode = vxNumberOf(value);
    VXProxy.memThresholdCheckModes = byteOf(mode);
    VX_TRACE(1, kControlThread, kInfo, "memThresholdCheckModes = %d", mode);
    if (mode < 0 || mode > kMaxMemMode)
        VX_TRACE(1, kControlThread, kWarning, "%s",
                 "memThresholdCheckModes is supported between (0-2). Default value is 0%");
}

void takeMemPct(const char* value) {
    const int percent = vxNumberOf(value);
    VXProxy.memUsageThresholdPct = byteOf(percent);
    VX_TRACE(1, kControlThread, kInfo, "memUsageThresholdPct = %d", percent);
    if (percent < 1 || percent > kMaxMemPct)
        VX_TRACE(1, kControlThread, kWarning, "%s",
                 "memUsageThresholdPct is supported between (0-50)%. Default value is 20%");
}

void takeMemSize(const char* value) {
    const int megabytes = vxNumberOf(value);
    VXProxy.memUsageThresholdSizeMB = megabytes;
    VX_TRACE(1, kControlThread, kInfo, "memUsageThresholdSizeMB = %d", megabytes);
    if (megabytes < kMinMemMB || megabytes > kMaxMemMB)
        VX_TRACE(1, kControlThread, kWarning, "%s",
                 "memUsageThresholdSizeMB is supported between 512(MB) to 10 (GB). Default value is "
                 "2048(MB)");
}

struct ProxyRow {
    const char* key;
    void (*take)(const char* value);
    const char* help;
};
constexpr ProxyRow kRows[] = {
    {"proxyConType", takeProxyConType, "connection type word, kept in the place of vxcPort"},
    {"proxyPort", takeProxyPort, "TCP and UDP port on which agents reach the service (1111)"},
    {"proxyudpTimeout", takeUdpTimeout, "seconds of silence after which a UDP function is dropped (900)"},
    {"numUDPThreads", takeUdpThreads, "UDP worker threads, 1 to 100 (10)"},
    {"vxcHost", takeVxcHost, "collector host where the agent settings name none"},
    {"vxcPort", takeVxcPort, "collector port where the agent settings name none"},
};
constexpr ProxyRow kMemoryRows[] = {
    {"memThresholdCheckModes", takeMemMode, "memory watch: 0 off, 1 restart, 2 dump and restart (1)"},
    {"memUsageThresholdPct", takeMemPct, "memory limit in percent of the system's, 1 to 50 (20)"},
    {"memUsageThresholdSizeMB", takeMemSize, "memory limit in MB, 512 to 10240 (2048)"},
};

// True when the line belongs to one of the rows, which then took it.
bool takeLine(std::span<const ProxyRow> rows, const char* line) {
    for (const ProxyRow& row : rows) {
        const char* value = search_keyword(line, row.key);
        if (!value) continue;
        row.take(value);
        return true;
    }
    return false;
}

void visitLine(const VXConfigLine& line) {
    if (line.tooLong) {
        VX_TRACE(1, kControlThread, kError, "%s: line %d has more than %d characters, ignored", kFileName,
                 line.number, static_cast<int>(kMaxLine));
        return;
    }
    vxMakeCollectorArray(*vxCurrent());
    if (takeLine(kRows, line.text) || ParseProxyMemoryThreshold(line.text)) return;
    VX_TRACE(1, kControlThread, kWarning, "Found unknown keyword<%s>. Ignored :D :P", line.text);
}

}  // namespace

void readVXProxyConfig() {
    char path[kConfigPathSize];
    vxConfigPath(path, sizeof(path), kFileName);
    VX_TRACE(1, kControlThread, kInfo, "Proxy setting file path '%s'.", path);
    apr_finfo_t info;
    if (vx_stat(path, &info) != 0 || !vxWalkConfigLines(path, kMaxLine, visitLine))
        VX_TRACE(1, kControlThread, kError, "%s is not present, so returning.", path);
}

int ParseProxyMemoryThreshold(const char* line) {
    return takeLine(kMemoryRows, line) ? 1 : 0;
}

}  // namespace vx
