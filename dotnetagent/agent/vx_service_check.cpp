#include "dotnetagent/agent/vx_service_check.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXConfigFile.h"
#include "commonlibc/VXProxySettings.h"
#include "commonlibc/VXSettingRows.h"
#include "commonlibc/VXSettingsFile.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/proxyServer/vx_proxy_lws_certificate.h"
#include "commonlibc/vx_agent.h"
#include "dotnetagent/agent/vx_service.h"

namespace vx {

namespace {

constexpr std::size_t kKeyColumn = 32;
constexpr std::size_t kReasonSize = 1024;
constexpr const char* kVariablePrefix = "ZOR_";

// A value that is in force, and the line (0: a variable) that gave it.
struct Origin {
    std::string source;
    int line;
    std::string text;
};

// What the readers reported. Keys: "<file>/<key>" for lines, the name for variables.
struct Findings {
    std::map<std::string, Origin> taken;
    std::vector<std::string> notes, faults;
};
Findings* findings = nullptr;  // of the check that runs

std::string placeOf(const Origin& origin) {
    return origin.line > 0 ? origin.source + ":" + std::to_string(origin.line) : origin.source;
}

std::string nameOf(const VXSettingReport& report) {
    return report.line > 0 ? std::string(report.source) + "/" + report.key : report.source;
}

bool isInForce(VXSettingVerdict verdict) {
    return verdict == VXSettingVerdict::kTaken || verdict == VXSettingVerdict::kTakenInPart ||
           verdict == VXSettingVerdict::kKeptOutOfBounds;
}

void noteTaken(const VXSettingReport& report) {
    Origin& origin = findings->taken[nameOf(report)];
    if (!origin.source.empty())
        findings->notes.push_back(placeOf(origin) + ": " + report.key + " is given again in line " +
                                  std::to_string(report.line) + ", which stands");
    origin = {report.source, report.line, report.text};
}

void take(const VXSettingReport& report) {
    if (isInForce(report.verdict)) noteTaken(report);
    if (report.verdict == VXSettingVerdict::kUnused)
        findings->notes.push_back(vxSettingPlace(report) + ": not used, another setting goes before: '" +
                                  vxPrintable(std::string(report.key) + "=" + report.text) + "'");
    const std::string fault = vxSettingFault(report);
    if (!fault.empty()) findings->faults.push_back(fault);
}

const Origin* originOf(const std::string& name) {
    const auto found = findings->taken.find(name);
    return found == findings->taken.end() ? nullptr : &found->second;
}

std::string column(const std::string& key) {
    return "  " + key + std::string(key.size() < kKeyColumn ? kKeyColumn - key.size() : 1, ' ');
}

// "  key    value    origin"; a value that was changed on its way shows what was written.
std::string settingLine(const std::string& key, const std::string& value, const Origin* origin) {
    std::string line = column(key) + (value.empty() ? "-" : vxPrintable(value)) + "  [";
    if (!origin) return line + "not set]\n";
    line += origin->line > 0 ? "line " + std::to_string(origin->line) : "variable " + origin->source;
    if (origin->text != value) line += ", written '" + vxPrintable(origin->text) + "'";
    return line + "]\n";
}

// Tells of a file that is missing; one that cannot be read has been reported. The heading of its section.
std::string fileHeading(const char* name) {
    char path[kConfigPathSize];
    vxConfigPath(path, sizeof(path), name);
    std::string reason;
    const VXConfigAnswer answer = vxWalkConfigLines(
        path, 1, [](const VXConfigLine&) {}, reason);
    const std::string heading = "\n" + std::string(path);
    if (answer == VXConfigAnswer::kRead) return heading + "\n";
    if (answer == VXConfigAnswer::kUnreadable) return heading + " (cannot be read)\n";
    findings->notes.push_back(std::string(name) + ": there is no such file");
    return heading + " (missing)\n";
}

std::string proxySection() {
    std::string text = fileHeading(kProxyFileName);
    for (const VXProxyRow& row : vxProxyRows())
        text += settingLine(row.key, row.show(row), originOf(std::string(kProxyFileName) + "/" + row.key));
    return text;
}

std::string agentSection(const vxApplication& root) {
    std::string text;
    if (root.VXBCISetting.envConfigured) {
        text = "\n" + std::string(kSettingsFileName) + " is not read: a variable names the collector\n";
    } else {
        text = fileHeading(kSettingsFileName);
    }
    for (const VXSettingRow& row : vxSettingRows()) {
        const Origin* origin = row.variable ? originOf(row.variable) : nullptr;
        if (!origin && row.key) origin = originOf(std::string(kSettingsFileName) + "/" + row.key);
        text += settingLine(row.key ? row.key : row.variable, row.show(), origin);
    }
    return text;
}

std::string endpointText(const VXCollectorRecord& record) {
    return std::string(record.host) + ":" + std::to_string(record.port);
}

// What all of it comes to. Without a collector a service would run for nothing.
std::string collectorSection(const vxApplication& root) {
    const VXCollectorRecord primary = vxCollectorAt(0);
    const VXCollectorRecord backup = vxCollectorAt(1);
    if (!*primary.host) {
        findings->faults.emplace_back("no collector is named: vxcHost of vxsettings.conf names one");
        return "\nCollector: none\n";
    }
    const bool hostGiven = originOf(std::string(kProxyFileName) + "/vxcHost") != nullptr;
    if (hostGiven && std::strcmp(primary.host, VXProxy.vxcHost) != 0)
        findings->notes.emplace_back("vxcHost of proxysetting.conf is not used: another setting goes before");
    const bool portGiven = originOf(std::string(kProxyFileName) + "/vxcPort") != nullptr;
    if (portGiven && primary.port != VXProxy.vxcPort)
        findings->notes.emplace_back("vxcPort of proxysetting.conf is not used: another setting goes before");
    std::string text =
        "\nCollector: " + endpointText(primary) + ", protocols " + root.VXSys.supportedProtocolsString;
    if (*backup.host) text += ", backup " + endpointText(backup);
    return text + "\n";
}

// The files that a start would need, if agents come over WSS.
void checkCertificate() {
    if (VXProxy.proxyAgentWebSocket != kAgentsOverWss) return;
    VXAgentCertificate paths;
    vxAgentCertificate(paths);
    char reason[kReasonSize];
    const VXCertificateVerdict verdict = vxCheckAgentCertificate(paths, reason, sizeof(reason));
    if (verdict == VXCertificateVerdict::kUnusable) findings->faults.emplace_back(reason);
    if (verdict == VXCertificateVerdict::kExpired) findings->notes.emplace_back(reason);
}

// A misspelt variable has no effect; it may also be meant for an agent, so it is no fault.
void noteUnknownVariables() {
    for (char** variable = environ; variable && *variable; ++variable) {
        const std::string name(*variable, std::strcspn(*variable, "="));
        if (!name.starts_with(kVariablePrefix)) continue;
        const auto rows = vxSettingRows();
        const bool known = std::any_of(rows.begin(), rows.end(), [&name](const VXSettingRow& row) {
            return row.variable && name == row.variable;
        });
        if (!known) findings->notes.push_back(vxPrintable(name) + ": no variable of this service");
    }
}

std::string listOf(const char* title, const std::vector<std::string>& items) {
    if (items.empty()) return "";
    std::string text = "\n" + std::string(title) + "\n";
    for (const std::string& item : items) text += "  " + item + "\n";
    return text;
}

}  // namespace

int vxCheckConfig(std::string* report) {
    Findings found;
    findings = &found;
    vxSettingObserver = take;
    proxyServerFlag.store(1, std::memory_order_release);
    const vxApplication* root =
        vxMakeRoot(kServicePoolName, kServiceProcessName, kServiceAgentType, VXRootUse::kCheck);
    vxSettingObserver = nullptr;
    if (!root) {
        *report = "out of memory\n";
        return kCheckFailed;
    }
    char home[kConfigPathSize];
    const char* variable = vxFindHome(home, sizeof(home));
    *report = "Home: " + std::string(home) + " (" +
              (variable ? std::string("from ") + variable : "VXHOME is not set") + ")\n";
    *report += proxySection() + agentSection(*root) + collectorSection(*root);
    checkCertificate();
    noteUnknownVariables();
    *report += listOf("Notes:", found.notes) + listOf("Faults:", found.faults);
    *report += found.faults.empty() ? "\nThe configuration is in order.\n"
                                    : "\n" + std::to_string(found.faults.size()) + " fault(s).\n";
    findings = nullptr;
    return found.faults.empty() ? kCheckPassed : kCheckFailed;
}

std::string vxSettingsHelp() {
    std::string text = "Settings of config/proxysetting.conf (defaults in brackets):\n";
    for (const VXProxyRow& row : vxProxyRows()) text += column(row.key) + row.help + "\n";
    text += "\nSettings of config/vxsettings.conf; the variable below one, if set, goes before it:\n";
    for (const VXSettingRow& row : vxSettingRows()) {
        text += column(row.key ? row.key : "(variable only)") + row.help + "\n";
        if (row.variable) text += "    " + std::string(row.variable) + "\n";
    }
    return text;
}

}  // namespace vx
