#include "commonlibc/VXBCISettings.h"

#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/vxlb_escape.h"
#include "commonlibc/vxlb_json.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::int32_t kDefaultPort = 443;
constexpr int kFirstErrorStatus = 400;
constexpr std::size_t kJsonSize = 4096;

struct AgentTypeRow {
    const char* name;
    std::int32_t code;
};
constexpr AgentTypeRow kAgentTypes[] = {
    {"Python", kAgentPython}, {"php", kAgentPhp}, {"Dotnet", kAgentDotnet},
    {"Java", kAgentJava},     {"go", kAgentGo},
};

VXBCISetting_t& settings() {
    return vxCurrent()->VXBCISetting;
}

bool publish(VXSharedText VXBCISetting_t::*slot, const char* text) {
    vxApplication& app = *vxCurrent();
    return text && setSharedText(app.retired, app.VXBCISetting.*slot, text);
}

void publishEncoded(VXSharedText VXBCISetting_t::*slot, const char* name) {
    const std::size_t size = 3 * std::strlen(name) + 1;
    auto* encoded = static_cast<char*>(VXLB_MALLOC(size, "encoded name", -1));
    if (!encoded) return;
    escapeHTML(encoded, size, name, 1);
    publish(slot, encoded);
    VXLB_FREE(encoded, "encoded name", -1);
}

void publishName(VXSharedText VXBCISetting_t::*slot, VXSharedText VXBCISetting_t::*encoded,
                 const char* name) {
    if (!name) return;
    publish(slot, name);
    publishEncoded(encoded, name);
}

void publishJson(VXSharedText VXBCISetting_t::*slot, const char* text) {
    if (!text) return;
    char json[kJsonSize];
    if (vxlb_json_from_pairs(text, json, sizeof(json)) < 0) {
        VX_TRACE(1, kControlThread, kError, "Neither JSON nor key=value pairs, ignored: '%s'", text);
        return;
    }
    publish(slot, json);
}

void setPort(std::atomic<std::int32_t> VXBCISetting_t::*member, const char* what, int port) {
    std::atomic<std::int32_t>& word = settings().*member;
    if (!checkVXCPort(port)) {
        VX_TRACE(1, kControlThread, kError, "Invalid %s = %d, port stays %d", what, port, word.load());
        return;
    }
    word.store(port, std::memory_order_relaxed);
}

void setStatusTable(VXBCISetting_t& setting) {
    for (int status = 0; status < kStatusTableSize; ++status)
        setting.btErrorArray[status].store(status < kFirstErrorStatus ? 'T' : 'F', std::memory_order_relaxed);
}

// What the settings passes of an instance that is set up no longer give.
void setIdentityDefaults(VXBCISetting_t& setting) {
    setting.logRetentionDays = 7;
    setting.stackSize = 512;
    setting.autoScalingMode = 2;
    setEndPointPrefix("collector");
}

}  // namespace

void VXBCISettingInit() {
    vxApplication& app = *vxCurrent();
    VXBCISetting_t& setting = app.VXBCISetting;
    setStatusTable(setting);
    vxlb_copy_text(setting.machineName, sizeof(setting.machineName), "LinuxEx");
    vxlb_copy_text(setting.controlSourceIP, sizeof(setting.controlSourceIP), "127.0.0.1");
    setting.vxcPort.store(kDefaultPort, std::memory_order_relaxed);
    setting.controlSourcePort.store(7990, std::memory_order_relaxed);
    vx_word_set(setting.FPMaxAllowedAgeInSec, 300);
    vx_word_set(setting.fileBasedKeywordMode, '0');
    setting.saasMode = 0;
    setting.saasPort = kDefaultPort;
    setting.envConfigured = 0;
    if (!app.identity.isProxyInstance) setIdentityDefaults(setting);
    if (!setting.authtoken.get()) setAuthtoken("NA");
    vxMakeCollectorArray(app);
}

void setTierName(const char* name) {
    publishName(&VXBCISetting_t::tierName, &VXBCISetting_t::encodedTierName, name);
}

void setAppServerName(const char* name) {
    publishName(&VXBCISetting_t::vxAppServerHost, &VXBCISetting_t::encodedServerName, name);
}

void setAppName(const char* name) {
    if (!name) {
        VX_TRACE(1, kControlThread, kWarning, "Instance name is still coming NULL");
        return;
    }
    const char* former = settings().appName.get();
    if (former && std::strcmp(former, name) == 0) {
        vxCurrent()->Server.sameAppName.store(1, std::memory_order_relaxed);
        VX_TRACE(1, kControlThread, kInfo, "Pool name is same as AppName (app-%s, pool-%s)", former, name);
    }
    publishName(&VXBCISetting_t::appName, &VXBCISetting_t::encodedAppName, name);
}

void setAppServerName_VXC(const char* name) {
    setAppServerName(name);
}

void setAgentType(const char* text) {
    if (!text) return;
    publish(&VXBCISetting_t::agentType, text);
    for (const AgentTypeRow& row : kAgentTypes)
        if (strcasecmp(row.name, text) == 0)
            settings().agentTypeCode.store(row.code, std::memory_order_relaxed);
}

void setAgentVersion(const char* text) {
    publish(&VXBCISetting_t::agentVersion, text);
}

void setTierAttr(const char* text) {
    publish(&VXBCISetting_t::tierAttr, text);
    setJson_attr(text);
}

void setAgentAppName(const char* text) {
    publish(&VXBCISetting_t::agentAppName, text);
}

void setEndPointPrefix(const char* text) {
    publish(&VXBCISetting_t::endPointPrefix, text);
}

void setProjKey(const char* text) {
    publish(&VXBCISetting_t::projectKey, text);
}

void setAuthtoken(const char* text) {
    publish(&VXBCISetting_t::authtoken, text);
}

void setSaasHostPort(const char* text) {
    if (!text) return;
    char host[kHostSize + 1];
    vxlb_copy_text(host, sizeof(host), text);
    host[std::strcspn(host, ":")] = '\0';
    if (!checkVXCHost(host)) {
        VX_TRACE(1, kControlThread, kError, "Invalid SaaS host - %s", text);
        return;
    }
    publish(&VXBCISetting_t::SaasHost, host);
    const char* colon = std::strchr(text, ':');
    if (!colon) return;
    const int port = vxNumberOf(colon + 1);
    if (checkVXCPort(port)) {
        settings().saasPort = port;
    } else {
        VX_TRACE(1, kControlThread, kError, "Invalid SaaS port - %s", text);
    }
}

bool checkVXCHost(const char* host) {
    constexpr const char* kHostBytes = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-:_";
    if (!host || !*host) return false;
    const std::size_t length = std::strlen(host);
    return length < kHostSize && std::strspn(host, kHostBytes) == length;
}

bool checkVXCPort(int port) {
    return port >= 1 && port <= 65535;
}

int setVXCHost(const char* host) {
    if (!checkVXCHost(host)) {
        VX_TRACE(1, kControlThread, kError, "Invalid VXC IP - %s", host ? host : "(null)");
        return -1;
    }
    publish(&VXBCISetting_t::vxcHost, host);
    return 0;
}

void setVXCPort(int port) {
    setPort(&VXBCISetting_t::vxcPort, "vxcPort", port);
}

void setVXC_TCP_Port(int port) {
    setPort(&VXBCISetting_t::vxcPort, "TCP port", port);
}

void setVXC_WS_Port(int port) {
    setPort(&VXBCISetting_t::wsPort, "WS port", port);
}

void setVXC_WSS_Port(int port) {
    setPort(&VXBCISetting_t::wssPort, "WSS port", port);
}

void setStackSize(int size) {
    if (size != 256 && size != 512 && size != 1024) {
        VX_TRACE(1, kControlThread, kError, "stackSize = %d is not 256, 512 or 1024, it stays %d", size,
                 settings().stackSize);
        return;
    }
    settings().stackSize = size;
}

void setAutoScalingMode(int mode) {
    settings().autoScalingMode = mode;
}

void setProtoVer(int version) {
    settings().protoVer.store(version, std::memory_order_relaxed);
}

void setJson_tag(const char* json) {
    publishJson(&VXBCISetting_t::tags, json);
}

void setJson_attr(const char* json) {
    publishJson(&VXBCISetting_t::attributes, json);
}

void resetVXCHostAndPort() {
    vxApplication& app = *vxCurrent();
    setSharedText(app.retired, app.VXBCISetting.vxcHost, nullptr);
    app.VXBCISetting.vxcPort.store(kDefaultPort, std::memory_order_relaxed);
}

const char* getTierName() {
    return settings().tierName.getOr("");
}

const char* getAppServerName() {
    return settings().vxAppServerHost.getOr("");
}

const char* getAppName() {
    return settings().appName.getOr("");
}

int getTierID() {
    return vx_word_get(settings().tierID);
}

int getAppServerID() {
    return vx_word_get(settings().vxAppServerID);
}

int getAppID() {
    return vx_word_get(settings().appID);
}

bool isErrorStatus(const vxApplication& app, std::int32_t status) {
    if (status < 0 || status >= kStatusTableSize) return false;
    return app.VXBCISetting.btErrorArray[status].load(std::memory_order_relaxed) == 'F';
}

int vxNumberOf(const char* text) {
    const long value = std::strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

}  // namespace vx
