#include "commonlibc/proxyServer/vx_proxy_instance_link.h"

#include <cstdio>
#include <cstring>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXSettingsFile.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/control_thread.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

int (*vxControlThreadStarter)(vxApplication* app) = vxStartControlThread;

namespace {

constexpr std::size_t kNameSize = 4 * kIdentitySize;

bool hasLink(const vxApplication& app) {
    return controlConnected(app.control) || app.control.controlThreadId.load(std::memory_order_acquire) != 0;
}

// Texts that are empty are not taken: the settings may have given others.
void takeText(vxApplication& app, VXSharedText& slot, const char* text) {
    if (text && *text) setSharedText(app.retired, slot, text);
}

void nameInstance(const VXIdentity_t& identity) {
    char name[kNameSize];
    std::snprintf(name, sizeof(name), "%s_%s_%s_%s", gPool ? gPool : "", identity.tierName,
                  identity.appServerName, identity.appName);
    setAgentAppName(name);
}

void readSettings(const VXIdentity_t& identity) {
    VXBCISettingInit();
    nameInstance(identity);
    const bool environment = read_env_var() == 0;
    if (read_conf_file() != 0 || !environment)
        VX_TRACE(2, kControlThread, kInfo, "configuration readiing in proxy");
    setAgentType(identity.agentType);
}

// What a second start of the control thread finds made.
void makeOnce(vxApplication& app) {
    if (app.flowpath.fpi_tls_map) return;
    initVXManageTIdToTLocal();
    app.flowpath.fpi_tls_map = create_hashmap(app.pool);
}

bool makePoolAndMutexes(vxApplication& app) {
    if (!app.pool && apr_pool_create(&app.pool, nullptr) != APR_SUCCESS) return false;
    return vxMakeContextMutexes(app);
}

void makeRuckusMap(vxApplication& app) {
    if (app.ruckusMap) return;
    app.ruckusMap = create_hashmap(app.pool);
    if (!app.ruckusMap)
        VX_TRACE(1, kControlThread, kError, "Error in creating map for udp ruckus messages...");
}

}  // namespace

int make_connection_with_vxc(vxApplication& instance, int isUDP) {
    if (hasLink(instance)) return 0;
    VXIdentity_t& identity = instance.identity;
    identity.udpTimeoutFlag.store(0, std::memory_order_relaxed);
    identity.isUDP = isUDP ? 1 : 0;
    vxSetCurrent(&instance);
    if (!makePoolAndMutexes(instance)) return 0;
    identity.connectStartTimeMs = vxlb_steady_ms();
    makeRuckusMap(instance);  // datagram clients may attach themselves to any instance

    VXSysInit("proxy");
    readSettings(identity);
    VX_UPCALL(initializeVXApplicationGlobal);
    populateVXBCISetting(instance);
    makeOnce(instance);
    VX_TRACE(3, kControlThread, kInfo, "\nBefore creating control thread VXApplication  'appName - %s'",
             identity.appName);
    vxControlThreadStarter(&instance);
    return 1;
}

void populateVXBCISetting(vxApplication& instance) {
    const VXIdentity_t& identity = instance.identity;
    setTierName(identity.tierName);
    setAppServerName(identity.appServerName);
    setAppName(identity.appName);
    takeText(instance, instance.VXBCISetting.attributes, identity.attributes);
    takeText(instance, instance.VXBCISetting.tags, identity.tags);
    if (*identity.tags)
        VX_TRACE(1, kControlThread, kInfo, "[200~strlen(nProxyInstance->tags)=%d",
                 static_cast<int>(std::strlen(identity.tags)));
}

}  // namespace vx
