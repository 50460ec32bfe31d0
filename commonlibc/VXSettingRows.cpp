#include "commonlibc/VXSettingRows.h"

#include <climits>
#include <cstring>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/vxlb_json.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

using Verdict = VXSettingVerdict;

constexpr int kMaxTraceLevel = 4;
constexpr int kMaxPort = 65535;
constexpr int kMaxRetentionDays = 36500;
constexpr std::size_t kJsonSize = 4096;
constexpr int kBackupRecord = 1;
constexpr const char* kTrueLetters = "yY1tT";
constexpr const char* kFalseLetters = "nN0fF";

VXSys_t& sys() {
    return vxCurrent()->VXSys;
}
VXBCISetting_t& settings() {
    return vxCurrent()->VXBCISetting;
}

constexpr Verdict verdictOf(bool taken) {
    return taken ? Verdict::kTaken : Verdict::kInvalid;
}

// A row whose setter takes any text.
template <void (*set)(const char*)>
Verdict takeText(const char* value, bool) {
    set(value);
    return Verdict::kTaken;
}

template <VXSharedText VXBCISetting_t::*member>
std::string showText() {
    return (settings().*member).getOr("");
}

// A row whose setter takes key=value pairs or a JSON object.
template <void (*set)(const char*)>
Verdict takeJson(const char* value, bool) {
    char json[kJsonSize];
    if (vxlb_json_from_pairs(value, json, sizeof(json)) < 0) return Verdict::kInvalid;
    set(value);
    return Verdict::kTaken;
}

Verdict takeInstanceAsTier(const char* value, bool fromFile) {
    if (!std::strchr(kTrueLetters, *value)) return verdictOf(std::strchr(kFalseLetters, *value) != nullptr);
    const bool tierIsGiven = fromFile && (settings().envRows >> vxSettingRowNamed("tier") & 1);
    if (tierIsGiven) return Verdict::kUnused;
    settings().instanceAsTier = 1;
    settings().tierFixed = 1;
    return Verdict::kTaken;
}
std::string showInstanceAsTier() {
    return settings().instanceAsTier ? "y" : "n";
}

Verdict takeTier(const char* value, bool) {
    if (settings().tierFixed) return Verdict::kUnused;
    setTierName(value);
    return Verdict::kTaken;
}

Verdict takeInstance(const char* value, bool fromFile) {
    setAppName(value);
    if (fromFile) {
        VX_TRACE(1, kControlThread, kInfo, "Setting Instance Name : %s", value);
    } else {
        VX_TRACE(1, kControlThread, kInfo, "Instance set:%s", value);
    }
    return Verdict::kTaken;
}

// A keyword member of the general settings that takes a number.
template <std::int32_t VXSys_t::*member, int min, int max>
Verdict takeSysWord(const char* value, bool) {
    int number = 0;
    if (!vxSettingNumber(value, min, max, &number)) return Verdict::kInvalid;
    vx_word_set(sys().*member, number);
    return Verdict::kTaken;
}
template <std::int32_t VXSys_t::*member>
std::string showSysWord() {
    return std::to_string(vx_word_get(sys().*member));
}

// Plain numbers, which only the settings passes touch.
template <std::int32_t VXBCISetting_t::*member>
std::string showNumber() {
    return std::to_string(settings().*member);
}

Verdict takeRetentionDays(const char* value, bool) {
    return verdictOf(vxSettingNumber(value, 1, kMaxRetentionDays, &settings().logRetentionDays));
}

Verdict takeRetryInterval(const char* value, bool) {
    int seconds = 0;
    if (!vxSettingNumber(value, 1, INT_MAX, &seconds)) return Verdict::kInvalid;
    vxCurrent()->control.retryInterval.store(std::int64_t{1000000} * seconds, std::memory_order_relaxed);
    return Verdict::kTaken;
}
std::string showRetryInterval() {
    const std::int64_t us = vxCurrent()->control.retryInterval.load(std::memory_order_relaxed);
    return std::to_string((us > 0 ? us : kDefaultRetryIntervalUs) / 1000000);
}

Verdict takeVxcHost(const char* value, bool) {
    if (setVXCHost(value) != 0) return Verdict::kInvalid;
    setPrimaryVXC(value, kLeavePort);
    return Verdict::kTaken;
}

Verdict takeVxcPort(const char* value, bool) {
    int port = 0;
    if (!vxSettingNumber(value, 1, kMaxPort, &port)) return Verdict::kInvalid;
    setVXCPort(port);
    settings().portGiven = 1;
    return Verdict::kTaken;
}
std::string showVxcPort() {
    return std::to_string(settings().vxcPort.load(std::memory_order_relaxed));
}

Verdict takeStackSize(const char* value, bool) {
    int size = 0;
    if (!vxSettingNumber(value, INT_MIN, INT_MAX, &size)) return Verdict::kInvalid;
    setStackSize(size);
    return verdictOf(settings().stackSize == size);
}

// Of a list with faults the valid items are taken.
Verdict takeProtocols(const char* value, bool) {
    bool whole = true;
    if (!upDateAgentSupportedProtocolData(value, &whole)) return Verdict::kInvalid;
    settings().protocolGiven = 1;
    return whole ? Verdict::kTaken : Verdict::kTakenInPart;
}
std::string showProtocols() {
    return sys().supportedProtocolsString;
}

Verdict takeBackupHost(const char* value, bool) {
    if (!checkVXCHost(value)) return Verdict::kInvalid;
    setBackupVXC(value, kLeavePort);
    return Verdict::kTaken;
}
std::string showBackupHost() {
    return vxCollectorAt(kBackupRecord).host;
}

Verdict takeBackupPort(const char* value, bool) {
    int port = 0;
    if (!vxSettingNumber(value, 1, kMaxPort, &port)) {
        VX_TRACE(1, kControlThread, kError, "Invalid port number found in file = %d", vxNumberOf(value));
        return Verdict::kInvalid;
    }
    vxSetCollectorPort(kBackupRecord, port);
    return Verdict::kTaken;
}
std::string showBackupPort() {
    const int port = vxCollectorAt(kBackupRecord).port;
    return port > 0 ? std::to_string(port) : "";
}

Verdict takeAutoScalingMode(const char* value, bool) {
    int mode = 0;
    if (!vxSettingNumber(value, INT_MIN, INT_MAX, &mode)) return Verdict::kInvalid;
    setAutoScalingMode(mode);
    return Verdict::kTaken;
}

// One key shows an operator everything: the module levels follow the agent's.
Verdict takeTraceLevel(const char* value, bool) {
    int level = 0;
    if (!vxSettingNumber(value, 0, kMaxTraceLevel, &level)) return Verdict::kInvalid;
    VXSys_t& all = sys();
    for (std::int32_t* word :
         {&all.AgentTraceLevel, &all.ControlThreadTraceLevel, &all.enableFPTrace, &all.enableBTMonitorTrace,
          &all.enableBackendMonTrace, &all.vxMethodMonTraceLevel, &all.captureExceptionTraceLevel,
          &all.enableThreadMonTraceLevel})
        vx_word_set(*word, level);
    return Verdict::kTaken;
}

Verdict takeProxyMode(const char* value, bool) {
    int mode = 0;
    if (!vxSettingNumber(value, INT_MIN, INT_MAX, &mode)) return Verdict::kInvalid;
    sys().proxyMode = mode == 1 ? 1 : 0;
    return Verdict::kTaken;
}
std::string showProxyMode() {
    return std::to_string(sys().proxyMode);
}

Verdict takeProxyConType(const char* value, bool) {
    return verdictOf(vxSettingNumber(value, INT_MIN, INT_MAX, &sys().proxyConType));
}

Verdict takeProxyIP(const char* value, bool) {
    if (!checkVXCHost(value)) return Verdict::kInvalid;
    vxlb_copy_text(sys().proxyHost, sizeof(sys().proxyHost), value);
    return Verdict::kTaken;
}
std::string showProxyIP() {
    return sys().proxyHost;
}

Verdict takeProxyPort(const char* value, bool) {
    return verdictOf(vxSettingNumber(value, 1, kMaxPort, &sys().proxyPort));
}

// "host" or "host:port"; all of it or nothing.
Verdict takeSaasUrl(const char* value, bool) {
    const char* colon = std::strchr(value, ':');
    int port = 0;
    if (colon && !vxSettingNumber(colon + 1, 1, kMaxPort, &port)) return Verdict::kInvalid;
    if (!checkVXCHost(std::string(value, colon ? colon : value + std::strlen(value)).c_str()))
        return Verdict::kInvalid;
    setSaasHostPort(value);
    settings().saasMode = 1;
    return Verdict::kTaken;
}

template <std::atomic<std::int32_t> VXBCISetting_t::*member>
Verdict takeSwitch(const char* value, bool) {
    int on = 0;
    if (!vxSettingNumber(value, 0, 1, &on)) return Verdict::kInvalid;
    (settings().*member).store(on, std::memory_order_relaxed);
    return Verdict::kTaken;
}
template <std::atomic<std::int32_t> VXBCISetting_t::*member>
std::string showSwitch() {
    return std::to_string((settings().*member).load(std::memory_order_relaxed));
}

template <VXSharedText VXBCISetting_t::*member>
void setFile(const char* path) {
    setSharedText(vxCurrent()->retired, settings().*member, path);
}

constexpr VXSettingSide kIdentity = VXSettingSide::kIdentity;
constexpr VXSettingSide kCollector = VXSettingSide::kCollector;

constexpr VXSettingRow kRows[] = {
    {"endPointPrefix", "ZOR_APP_AGENT_ENDPOINTPREFIX", kIdentity, takeText<setEndPointPrefix>,
     showText<&VXBCISetting_t::endPointPrefix>,
     "first element of the collector's WebSocket path (collector)"},
    {"ZOR_INSTANCE_AS_TIER", "ZOR_INSTANCE_AS_TIER", kIdentity, takeInstanceAsTier, showInstanceAsTier,
     "y or 1: the instance name is also the tier name (n)"},
    {"tier", "ZOR_APP_AGENT_TIER", kIdentity, takeTier, showText<&VXBCISetting_t::tierName>,
     "tier name (Default)"},
    {"server", "ZOR_APP_AGENT_SERVER", kIdentity, takeText<setAppServerName>,
     showText<&VXBCISetting_t::vxAppServerHost>, "server name; without one the host's"},
    {"instance", "ZOR_APP_AGENT_INSTANCE", kIdentity, takeInstance, showText<&VXBCISetting_t::appName>,
     "instance name"},
    {"tags", "ZOR_APP_AGENT_TAGS", kIdentity, takeJson<setJson_tag>, showText<&VXBCISetting_t::tags>,
     "key=value pairs or JSON"},
    {"attributes", "ZOR_APP_AGENT_ATTRIBUTES", kIdentity, takeJson<setJson_attr>,
     showText<&VXBCISetting_t::attributes>, "key=value pairs or JSON"},
    {nullptr, "ZOR_APP_AGENT_TIERATTRIBUTES", kIdentity, takeJson<setTierAttr>,
     showText<&VXBCISetting_t::tierAttr>, "attributes of the tier, key=value pairs or JSON"},
    {nullptr, "ZOR_APP_AGENT_APPNAME", kIdentity, takeText<setAgentAppName>,
     showText<&VXBCISetting_t::agentAppName>, "application name"},
    {"instrumentMoveNext", nullptr, kIdentity, takeSysWord<&VXSys_t::instrumentMoveNext, 0, 1>,
     showSysWord<&VXSys_t::instrumentMoveNext>, "1: MoveNext methods are instrumented (0)"},
    {"VX_LOG_RETENTION_DAYS", "VX_LOG_RETENTION_DAYS", kIdentity, takeRetentionDays,
     showNumber<&VXBCISetting_t::logRetentionDays>, "days that trace files are kept, 1 to 36500 (7)"},
    {"CONNECTION_RETRY_TIME_INTERVAL", "ZOR_APP_CONNECTION_RETRY_TIME_INTERVAL", kCollector,
     takeRetryInterval, showRetryInterval, "seconds between two connect attempts (60)"},
    {"vxcHost", "ZOR_APP_AGENT_VXCHOST", kCollector, takeVxcHost, showText<&VXBCISetting_t::vxcHost>,
     "collector host"},
    {"vxcPort", "ZOR_APP_AGENT_VXCPORT", kCollector, takeVxcPort, showVxcPort, "collector port (443)"},
    {"stackSize", "ZOR_APP_AGENT_STACK_SIZE", kIdentity, takeStackSize,
     showNumber<&VXBCISetting_t::stackSize>, "256, 512 or 1024 (512)"},
    {"VXC_COMM_PROTOCOL", "ZOR_APP_AGENT_VXC_COMM_PROTOCOL", kCollector, takeProtocols, showProtocols,
     "protocols in order of preference, as in TCP:7000,WS:7001,WSS:443 (WSS)"},
    {"backupVxcHostName", nullptr, kCollector, takeBackupHost, showBackupHost,
     "host of the backup collector"},
    {"backupVxcPort", nullptr, kCollector, takeBackupPort, showBackupPort, "port of the backup collector"},
    {"autoScalingMode", nullptr, kIdentity, takeAutoScalingMode, showNumber<&VXBCISetting_t::autoScalingMode>,
     "kept; nothing reads it (2)"},
    {"agentTraceLevel", nullptr, kCollector, takeTraceLevel, showSysWord<&VXSys_t::AgentTraceLevel>,
     "trace level of all modules, 0 to 4 (0)"},
    {"agentPCTraceLevel", nullptr, kCollector, takeSysWord<&VXSys_t::AgentPCTraceLevel, 0, kMaxTraceLevel>,
     showSysWord<&VXSys_t::AgentPCTraceLevel>, "trace level handed to agents, 0 to 4 (0)"},
    {"instrumentSleep", nullptr, kIdentity, takeSysWord<&VXSys_t::instrumentSleepMs, 0, INT_MAX>,
     showSysWord<&VXSys_t::instrumentSleepMs>, "milliseconds of a pause at the start of instrumentation (0)"},
    {"proxyMode", "ZOR_APP_AGENT_PROXYMODE", kIdentity, takeProxyMode, showProxyMode,
     "for agents: 1, a proxy is used (0)"},
    {"proxyConType", "ZOR_APP_AGENT_PROXYCONTYPE", kIdentity, takeProxyConType,
     showSysWord<&VXSys_t::proxyConType>, "for agents: kind of connection to the proxy (0)"},
    {"proxyIP", "ZOR_APP_AGENT_PROXYIP", kIdentity, takeProxyIP, showProxyIP,
     "for agents: the proxy's host (127.0.0.1)"},
    {"proxyPort", "ZOR_APP_AGENT_PROXYPORT", kIdentity, takeProxyPort, showSysWord<&VXSys_t::proxyPort>,
     "for agents: the proxy's port (1111)"},
    {"vxAgentDebugLogging", nullptr, kIdentity, takeSysWord<&VXSys_t::agentDebugLogging, INT_MIN, INT_MAX>,
     showSysWord<&VXSys_t::agentDebugLogging>, "mode of the log lines of agents (0)"},
    {"vxProjectKey", "ZOR_APP_AGENT_VXPROJECTKEY", kCollector, takeText<setProjKey>,
     showText<&VXBCISetting_t::projectKey>, "project key for the SaaS endpoint"},
    {"vxSaasURL", "ZOR_APP_AGENT_VXSAASURL", kCollector, takeSaasUrl, showText<&VXBCISetting_t::SaasHost>,
     "host:port of the SaaS endpoint that names the collector"},
    {"vxTlsVerify", nullptr, kCollector, takeSwitch<&VXBCISetting_t::tlsVerify>,
     showSwitch<&VXBCISetting_t::tlsVerify>,
     "1: over WSS the collector's certificate and name are checked (0)"},
    {"vxTlsCaFile", nullptr, kCollector, takeText<setFile<&VXBCISetting_t::tlsCaFile>>,
     showText<&VXBCISetting_t::tlsCaFile>,
     "PEM file of certificates to check with; without one the system's"},
    {"vxAgentCertFile", nullptr, kCollector, takeText<setFile<&VXBCISetting_t::agentCertFile>>,
     showText<&VXBCISetting_t::agentCertFile>,
     "PEM file: certificate for agents over WSS; without one config/proxy.cert of the home"},
    {"vxAgentKeyFile", nullptr, kCollector, takeText<setFile<&VXBCISetting_t::agentKeyFile>>,
     showText<&VXBCISetting_t::agentKeyFile>,
     "PEM file: its key; without one it stands with the certificate"},
    {"vxRawWsPath", nullptr, kCollector, takeSwitch<&VXBCISetting_t::rawWsPath>,
     showSwitch<&VXBCISetting_t::rawWsPath>, "1: the WebSocket path has no / in front (0)"},
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
