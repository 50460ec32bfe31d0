#include "commonlibc/VXSettingRows.h"

#include <cstring>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr int kMaxTraceLevel = 4;
constexpr int kBackupRecord = 1;
constexpr const char* kTrueLetters = "yY1tT";

VXSys_t& sys() {
    return vxCurrent()->VXSys;
}
VXBCISetting_t& settings() {
    return vxCurrent()->VXBCISetting;
}

// A row whose setter takes any text.
template <void (*set)(const char*)>
bool takeText(const char* value, bool) {
    set(value);
    return true;
}

bool takeInstanceAsTier(const char* value, bool fromFile) {
    const bool tierIsGiven = fromFile && (settings().envRows >> vxSettingRowNamed("tier") & 1);
    if (!std::strchr(kTrueLetters, *value) || tierIsGiven) return true;
    settings().instanceAsTier = 1;
    settings().tierFixed = 1;
    return true;
}

bool takeTier(const char* value, bool) {
    if (!settings().tierFixed) setTierName(value);
    return true;
}

bool takeInstance(const char* value, bool fromFile) {
    setAppName(value);
    if (fromFile) {
        VX_TRACE(1, kControlThread, kInfo, "Setting Instance Name : %s", value);
    } else {
        VX_TRACE(1, kControlThread, kInfo, "Instance set:%s", value);
    }
    return true;
}

bool takeMoveNext(const char* value, bool) {
    vx_word_set(sys().instrumentMoveNext, vxNumberOf(value) == 1 ? 1 : 0);
    return true;
}

bool takeRetentionDays(const char* value, bool) {
    settings().logRetentionDays = vxNumberOf(value);
    return true;
}

bool takeRetryInterval(const char* value, bool) {
    const std::int64_t seconds = vxNumberOf(value);
    if (seconds < 1) return false;
    vxCurrent()->control.retryInterval.store(seconds * 1000000, std::memory_order_relaxed);
    return true;
}

bool takeVxcHost(const char* value, bool) {
    if (setVXCHost(value) != 0) return false;
    setPrimaryVXC(value, kLeavePort);
    return true;
}

bool takeVxcPort(const char* value, bool) {
    const int port = vxNumberOf(value);
    if (!checkVXCPort(port)) return false;
    setVXCPort(port);
    settings().portGiven = 1;
    return true;
}

bool takeStackSize(const char* value, bool) {
    setStackSize(vxNumberOf(value));
    return true;
}

bool takeProtocols(const char* value, bool) {
    if (!upDateAgentSupportedProtocolData(value)) return false;
    settings().protocolGiven = 1;
    return true;
}

bool takeBackupHost(const char* value, bool) {
    if (!checkVXCHost(value)) return false;
    setBackupVXC(value, kLeavePort);
    return true;
}

bool takeBackupPort(const char* value, bool) {
    const int port = vxNumberOf(value);
    if (checkVXCPort(port)) {
        vxSetCollectorPort(kBackupRecord, port);
    } else {
        VX_TRACE(1, kControlThread, kError, "Invalid port number found in file = %d", port);
    }
    return true;
}

bool takeAutoScalingMode(const char* value, bool) {
    setAutoScalingMode(vxNumberOf(value));
    return true;
}

// One key shows an operator everything: the module levels follow the agent's.
bool takeTraceLevel(const char* value, bool) {
    const int level = vxNumberOf(value);
    if (level < 0 || level > kMaxTraceLevel) return false;
    VXSys_t& all = sys();
    for (std::int32_t* word :
         {&all.AgentTraceLevel, &all.ControlThreadTraceLevel, &all.enableFPTrace, &all.enableBTMonitorTrace,
          &all.enableBackendMonTrace, &all.vxMethodMonTraceLevel, &all.captureExceptionTraceLevel,
          &all.enableThreadMonTraceLevel})
        vx_word_set(*word, level);
    return true;
}

bool takePCTraceLevel(const char* value, bool) {
    const int level = vxNumberOf(value);
    if (level < 0 || level > kMaxTraceLevel) return false;
    vx_word_set(sys().AgentPCTraceLevel, level);
    return true;
}

bool takeInstrumentSleep(const char* value, bool) {
    const int milliseconds = vxNumberOf(value);
    if (milliseconds < 0) return false;
    vx_word_set(sys().instrumentSleepMs, milliseconds);
    return true;
}

bool takeProxyMode(const char* value, bool) {
    sys().proxyMode = vxNumberOf(value) == 1 ? 1 : 0;
    return true;
}

bool takeProxyConType(const char* value, bool) {
    sys().proxyConType = vxNumberOf(value);
    return true;
}

bool takeProxyIP(const char* value, bool) {
    vxlb_copy_text(sys().proxyHost, sizeof(sys().proxyHost), value);
    return true;
}

bool takeProxyPort(const char* value, bool) {
    const int port = vxNumberOf(value);
    if (!checkVXCPort(port)) return false;
    sys().proxyPort = port;
    return true;
}

bool takeDebugLogging(const char* value, bool) {
    vx_word_set(sys().agentDebugLogging, vxNumberOf(value));
    return true;
}

bool takeSaasUrl(const char* value, bool) {
    setSaasHostPort(value);
    if (!settings().SaasHost.get()) return false;
    settings().saasMode = 1;
    return true;
}

constexpr VXSettingSide kIdentity = VXSettingSide::kIdentity;
constexpr VXSettingSide kCollector = VXSettingSide::kCollector;

constexpr VXSettingRow kRows[] = {
    {"endPointPrefix", "ZOR_APP_AGENT_ENDPOINTPREFIX", kIdentity, takeText<setEndPointPrefix>,
     "first element of the collector's WebSocket path (collector)"},
    {"ZOR_INSTANCE_AS_TIER", "ZOR_INSTANCE_AS_TIER", kIdentity, takeInstanceAsTier,
     "y or 1: the instance name is also the tier name"},
    {"tier", "ZOR_APP_AGENT_TIER", kIdentity, takeTier, "tier name (Default)"},
    {"server", "ZOR_APP_AGENT_SERVER", kIdentity, takeText<setAppServerName>, "server name (the host's)"},
    {"instance", "ZOR_APP_AGENT_INSTANCE", kIdentity, takeInstance, "instance name"},
    {"tags", "ZOR_APP_AGENT_TAGS", kIdentity, takeText<setJson_tag>, "key=value pairs or JSON"},
    {"attributes", "ZOR_APP_AGENT_ATTRIBUTES", kIdentity, takeText<setJson_attr>, "key=value pairs or JSON"},
    {nullptr, "ZOR_APP_AGENT_TIERATTRIBUTES", kIdentity, takeText<setTierAttr>,
     "attributes of the tier, key=value pairs or JSON"},
    {nullptr, "ZOR_APP_AGENT_APPNAME", kIdentity, takeText<setAgentAppName>, "application name"},
    {"instrumentMoveNext", nullptr, kIdentity, takeMoveNext, "1: MoveNext methods are instrumented (0)"},
    {"VX_LOG_RETENTION_DAYS", "VX_LOG_RETENTION_DAYS", kIdentity, takeRetentionDays,
     "days that trace files are kept (7)"},
    {"CONNECTION_RETRY_TIME_INTERVAL", "ZOR_APP_CONNECTION_RETRY_TIME_INTERVAL", kCollector,
     takeRetryInterval, "seconds between two connect attempts (60)"},
    {"vxcHost", "ZOR_APP_AGENT_VXCHOST", kCollector, takeVxcHost, "collector host"},
    {"vxcPort", "ZOR_APP_AGENT_VXCPORT", kCollector, takeVxcPort, "collector port (443)"},
    {"stackSize", "ZOR_APP_AGENT_STACK_SIZE", kIdentity, takeStackSize, "256, 512 or 1024 (512)"},
    {"VXC_COMM_PROTOCOL", "ZOR_APP_AGENT_VXC_COMM_PROTOCOL", kCollector, takeProtocols,
     "protocols in order of preference, as in TCP:7000,WS:7001,WSS:443 (WSS)"},
    {"backupVxcHostName", nullptr, kCollector, takeBackupHost, "host of the backup collector"},
    {"backupVxcPort", nullptr, kCollector, takeBackupPort, "port of the backup collector"},
    {"autoScalingMode", nullptr, kIdentity, takeAutoScalingMode, "(2)"},
    {"agentTraceLevel", nullptr, kCollector, takeTraceLevel, "trace level of all modules, 0 to 4 (0)"},
    {"agentPCTraceLevel", nullptr, kCollector, takePCTraceLevel, "trace level handed to agents, 0 to 4 (0)"},
    {"instrumentSleep", nullptr, kIdentity, takeInstrumentSleep,
     "milliseconds of a pause at the start of instrumentation (0)"},
    {"proxyMode", "ZOR_APP_AGENT_PROXYMODE", kIdentity, takeProxyMode, "for agents: 1, a proxy is used (0)"},
    {"proxyConType", "ZOR_APP_AGENT_PROXYCONTYPE", kIdentity, takeProxyConType,
     "for agents: kind of connection to the proxy (0)"},
    {"proxyIP", "ZOR_APP_AGENT_PROXYIP", kIdentity, takeProxyIP, "for agents: the proxy's host (127.0.0.1)"},
    {"proxyPort", "ZOR_APP_AGENT_PROXYPORT", kIdentity, takeProxyPort, "for agents: the proxy's port (1111)"},
    {"vxAgentDebugLogging", nullptr, kIdentity, takeDebugLogging, "mode of the log lines of agents (0)"},
    {"vxProjectKey", "ZOR_APP_AGENT_VXPROJECTKEY", kCollector, takeText<setProjKey>,
     "project key for the SaaS endpoint"},
    {"vxSaasURL", "ZOR_APP_AGENT_VXSAASURL", kCollector, takeSaasUrl,
     "host:port of the SaaS endpoint that names the collector"},
};
static_assert(std::size(kRows) <= 64, "VXBCISetting.envRows holds a bit for each row");

}  // namespace

std::span<const VXSettingRow> vxSettingRows() {
    return kRows;
}

int vxSettingRowOf(const char* line, const char** value) {
    for (std::size_t i = 0; i < std::size(kRows); ++i) {
        if (!kRows[i].key) continue;
        *value = search_keyword(line, kRows[i].key);
        if (*value) return static_cast<int>(i);
    }
    return -1;
}

int vxSettingRowNamed(const char* key) {
    for (std::size_t i = 0; i < std::size(kRows); ++i)
        if (kRows[i].key && std::strcmp(kRows[i].key, key) == 0) return static_cast<int>(i);
    return -1;
}

}  // namespace vx
