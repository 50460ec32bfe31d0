#include "commonlibc/VXSettingsFile.h"

#include <apr_network_io.h>

#include <cstring>
#include <string>
#include <vector>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXConfigFile.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/VXSettingReport.h"
#include "commonlibc/VXSettingRows.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

constinit std::mutex vxSettingsFileMutex;

namespace {

constexpr int kMaxLine = 2048;
constexpr std::size_t kVariableSize = 4096;
constexpr int kDefaultPort = 443;
constexpr const char* kDefaultTier = "Default";

std::uint64_t bitOf(int row) {
    return row < 0 ? 0 : std::uint64_t{1} << row;
}
std::uint64_t bitNamed(const char* key) {
    return bitOf(vxSettingRowNamed(key));
}

// An instance that is set up has the identity of its agents.
bool takesIdentity(const vxApplication& app) {
    return !app.identity.isProxyInstance;
}

bool acts(const vxApplication& app, const VXSettingRow& row) {
    return row.side == VXSettingSide::kCollector || takesIdentity(app);
}

// A value and the line that gave it; line 0: a variable.
struct GivenValue {
    int line;
    std::string value;
};

bool takeValue(const VXSettingRow& row, const GivenValue& given) {
    const bool fromFile = given.line > 0;
    const VXSettingVerdict verdict = row.take(given.value.c_str(), fromFile);
    if (verdict == VXSettingVerdict::kInvalid)
        VX_TRACE(1, kControlThread, kError, "Value '%s' of '%s' is not valid, ignored", given.value.c_str(),
                 fromFile ? row.key : row.variable);
    vxReportSetting({fromFile ? kSettingsFileName : row.variable, given.line,
                     fromFile ? row.key : row.variable, given.value.c_str(), verdict});
    return verdict == VXSettingVerdict::kTaken || verdict == VXSettingVerdict::kTakenInPart;
}

void beginPass(vxApplication& app) {
    VXBCISetting_t& setting = app.VXBCISetting;
    setting.portGiven = setting.protocolGiven = 0;
    setting.saasMode = 0;
    setting.envConfigured = 0;
    setting.envRows = 0;
    if (takesIdentity(app)) setting.tierFixed = setting.instanceAsTier = 0;
    vxClearAgentProtocols();
}

// The rows that variables gave, as bits.
std::uint64_t takeVariables(const vxApplication& app) {
    std::uint64_t taken = 0;
    int index = -1;
    for (const VXSettingRow& row : vxSettingRows()) {
        ++index;
        char value[kVariableSize];
        if (!row.variable || !acts(app, row)) continue;
        if (vxlb_get_env_var_value(row.variable, value, sizeof(value)) != 0 || !*value) continue;
        if (std::strlen(value) == kVariableSize - 1) {  // cut, perhaps in the middle of a name
            VX_TRACE(1, kControlThread, kError, "%s is too long, ignored", row.variable);
            vxReportSetting({row.variable, 0, row.variable, value, VXSettingVerdict::kLineFault,
                             VXConfigFault::kTooLong});
            continue;
        }
        if (takeValue(row, {0, value})) taken |= bitOf(index);
    }
    return taken;
}

void nameServerAfterHost(vxApplication& app) {
    if (app.VXBCISetting.vxAppServerHost.get()) return;
    char name[APRMAXHOSTLEN + 1] = "";
    if (apr_gethostname(name, sizeof(name), app.pool) == APR_SUCCESS && *name) setAppServerName(name);
}

using FileValues = std::vector<std::vector<GivenValue>>;  // of each row, in the order of the lines

void keepLine(FileValues& values, const VXConfigLine& line) {
    if (vxReportLineFault(kSettingsFileName, line, kMaxLine)) return;
    const char* value = nullptr;
    const int row = vxSettingRowOf(line.text, &value);
    if (row < 0) {
        VX_TRACE(1, kControlThread, kWarning, "%s: line %d is not understood, ignored: '%s'",
                 kSettingsFileName, line.number, line.text);
        vxReportSetting({kSettingsFileName, line.number, nullptr, line.text, vxVerdictOfUnknown(line.text)});
        return;
    }
    values[static_cast<std::size_t>(row)].push_back({line.number, value});
}

// Lines of a setting that a variable gave.
void reportUnused(const VXSettingRow& row, const std::vector<GivenValue>& values) {
    for (const GivenValue& given : values)
        vxReportSetting(
            {kSettingsFileName, given.line, row.key, given.value.c_str(), VXSettingVerdict::kUnused});
}

// Reads the file and takes its size and date as held. False when it cannot be read.
bool readFile(VXBCISetting_t& setting, const char* path, FileValues& values) {
    const std::lock_guard lock(vxSettingsFileMutex);
    apr_finfo_t info{};
    setting.prevFileSize = setting.lastModifiedDate = 0;
    if (vx_stat(path, &info) == 0) {
        setting.prevFileSize = info.size;
        setting.lastModifiedDate = info.mtime;
    }
    return vxWalkSettings(kSettingsFileName, kMaxLine,
                          [&values](const VXConfigLine& line) { keepLine(values, line); });
}

// The rows that lines gave, as bits. Of several lines the last valid one stands. A backup that the file no
// longer names goes.
std::uint64_t takeLines(const vxApplication& app, const FileValues& values) {
    if (app.collectors.clusterMode.load() == 0) setBackupVXC("", 0);
    std::uint64_t taken = 0;
    int index = -1;
    for (const VXSettingRow& row : vxSettingRows()) {
        ++index;
        const std::vector<GivenValue>& lines = values[static_cast<std::size_t>(index)];
        if (!acts(app, row) || (app.VXBCISetting.envRows & bitOf(index))) {
            reportUnused(row, lines);
            continue;
        }
        for (const GivenValue& given : lines)
            if (takeValue(row, given)) taken |= bitOf(index);
    }
    return taken;
}

void finishIdentity(vxApplication& app, std::uint64_t given) {
    if (!VXProxy.proxyMode && !*getAppName() && gPool) {
        VX_TRACE(1, kControlThread, kInfo, "AppName is null,Going to set with proc or poolName");
        setAppName(gPool);
    }
    if (app.VXBCISetting.instanceAsTier && *getAppName()) {
        setTierName(getAppName());
    } else if (!(given & bitNamed("tier"))) {
        VX_TRACE(1, kControlThread, kInfo, "set default tier");
        setTierName(kDefaultTier);
    }
}

bool agentHasTcp(const VXCollectors_t& collectors) {
    for (const std::int32_t protocol : collectors.supportedProtocolArray)
        if (protocol == kProtocolTCP) return true;
    return false;
}

void finishPort(const vxApplication& app, bool hostGiven) {
    const VXBCISetting_t& setting = app.VXBCISetting;
    if (setting.portGiven || setting.saasMode || agentHasTcp(app.collectors)) return;
    setVXCPort(!hostGiven && checkVXCPort(VXProxy.vxcPort) ? VXProxy.vxcPort : kDefaultPort);
}

void finishProtocols(vxApplication& app) {
    if (!app.VXBCISetting.protocolGiven) updateANYAgentSupportedProtocolData(kProtocolWSS);
    const std::int32_t preferred = app.collectors.supportedProtocolArray[0];
    setActiveProtocolIndex(preferred);
    app.control.lws_active.store(preferred > kProtocolTCP ? 1 : 0);
}

void traceSaas(const VXBCISetting_t& setting) {
    VX_TRACE(1, kControlThread, kInfo,
             "Project key:%s,saasPort:%d,saasHost:%s,vxchost:%s,saMode:%d,saasSer:%d,vxcPort:%d",
             setting.projectKey.getOr(""), setting.saasPort, setting.SaasHost.getOr(""),
             setting.vxcHost.getOr(""), setting.saasMode, vxCollectorAt(0).isSaas, setting.vxcPort.load());
}

void finishPass(vxApplication& app, std::uint64_t given) {
    const bool hostGiven = (given & bitNamed("vxcHost")) != 0;
    if (takesIdentity(app)) finishIdentity(app, given);
    if (!hostGiven && VXProxy.vxcHost) setVXCHost(VXProxy.vxcHost);
    finishPort(app, hostGiven);
    finishProtocols(app);
    vxFinishCollectorRecords();
    if (app.VXBCISetting.saasMode) traceSaas(app.VXBCISetting);
}

}  // namespace

int read_env_var() {
    vxApplication& app = *vxCurrent();
    VXBCISetting_t& setting = app.VXBCISetting;
    beginPass(app);
    setting.envRows = takeVariables(app);
    if (takesIdentity(app)) nameServerAfterHost(app);
    if (!(setting.envRows & bitNamed("vxcHost"))) return 1;
    setting.envConfigured = 1;
    finishPass(app, setting.envRows);
    return 0;
}

int read_conf_file() {
    vxApplication& app = *vxCurrent();
    VXBCISetting_t& setting = app.VXBCISetting;
    if (setting.envConfigured) {
        VX_TRACE(3, kControlThread, kInfo, "Success");
        return 0;
    }
    char path[kConfigPathSize];
    vxConfigPath(path, sizeof(path), kSettingsFileName);
    FileValues values(vxSettingRows().size());
    const bool wasRead = readFile(setting, path, values);
    if (!wasRead) VX_TRACE(1, kControlThread, kError, "%s cannot be read, so returning.", path);
    finishPass(app, setting.envRows | takeLines(app, values));

    const bool named = setting.vxcHost.get() || (setting.saasMode && setting.SaasHost.get());
    if (named) return 0;
    if (wasRead && VXProxy.proxyMode && app.identity.isProxyInstance) {
        VX_TRACE(1, kControlThread, kError,
                 "Error in content of file %s.\n vxchost field is mandatory.Please check...", path);
        return 1;
    }
    return wasRead ? 0 : 1;
}

int check_file_size_of_vxsetting_files(int flag) {
    VXBCISetting_t& setting = vxCurrent()->VXBCISetting;
    if (setting.envConfigured) return 0;  // the file is not used
    char path[kConfigPathSize];
    vxConfigPath(path, sizeof(path), kSettingsFileName);
    apr_finfo_t info{};
    if (vx_stat(path, &info) != 0 || info.size == 0) {
        VX_TRACE(1, kControlThread, kError, "%s was of 0 size", path);
        return 0;
    }
    const bool differs = info.size != setting.prevFileSize || info.mtime != setting.lastModifiedDate;
    std::string reason;
    const auto ignore = [](const VXConfigLine&) {};
    if (flag && differs && vxWalkConfigLines(path, 1, ignore, reason) != VXConfigAnswer::kRead) {
        VX_TRACE(1, kControlThread, kError, "%s has changed and cannot be read (%s): the settings stay", path,
                 reason.c_str());
        return 0;
    }
    if (flag == 0) {
        setting.prevFileSize = info.size;
        setting.lastModifiedDate = info.mtime;
    }
    return differs ? 1 : 0;
}

}  // namespace vx
