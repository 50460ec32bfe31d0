#include "commonlibc/VXSys.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

constinit std::mutex vxTextMutex;

namespace {

constexpr std::size_t kPathSize = 4096;
constexpr const char* kHomeVariables[] = {"VXHOME", "USERPROFILE", "HOME"};
constexpr const char* kHomeFolder = "proxy";

constexpr const char* kDefaultCookieName = "ZorKW";
constexpr const char* kDefaultProxyHost = "127.0.0.1";
constexpr const char* kDefaultFpVersion = "1.0";
constexpr const char* kBuildText = "VXProxy " VX_VERSION;

struct IntDefault {
    std::int32_t VXSys_t::*member;
    std::int32_t value;
};
constexpr IntDefault kIntDefaults[] = {
    {&VXSys_t::enableForcedFPChain, 0},
    {&VXSys_t::enableBTMonitorTrace, 0},
    {&VXSys_t::captureExceptionTraceLevel, 0},
    {&VXSys_t::vxMethodMonTraceLevel, 0},
    {&VXSys_t::enableBackendMonTrace, 0},
    {&VXSys_t::enableThreadMonTraceLevel, 0},
    {&VXSys_t::ControlThreadTraceLevel, 0},
    {&VXSys_t::AgentTraceLevel, 0},
    {&VXSys_t::AgentHSTraceLevel, 0},
    {&VXSys_t::AgentADTraceLevel, 0},
    {&VXSys_t::AgentPCTraceLevel, 0},
    {&VXSys_t::AgentEXTraceLevel, 0},
    {&VXSys_t::enableFPTrace, 0},
    {&VXSys_t::memoryTraceLevel, 0},
    {&VXSys_t::bciInstrSessionPct, 0},
    {&VXSys_t::enableIPResourceURL, 0},
    {&VXSys_t::hashMapClearTime, 1000},
    {&VXSys_t::vxEnableTxHotspot, 0},
    {&VXSys_t::vxHelperDepth, 2},
    {&VXSys_t::vxHotspotThreadLimit, 30},
    {&VXSys_t::maxHttpBodySize, 1024},
    {&VXSys_t::BTRuleOverridePolicy, 0},
    {&VXSys_t::bciDataBufferMaxSize, 102400},
    {&VXSys_t::bciDataBufferMaxCount, 1000},
    {&VXSys_t::enableProcessNotificationPhase, 0},
    {&VXSys_t::enableUpdateLogMsgForNF, 0},
    {&VXSys_t::enableCallBackException, 0},
    {&VXSys_t::enableCpuTime, 0},
    {&VXSys_t::enableDBQueryParamValues, 0},
    {&VXSys_t::enableGCMonitor, 0},
    {&VXSys_t::enableGoroutineMonitor, 0},
    {&VXSys_t::maxExceptionMessageLength, 1000},
    {&VXSys_t::enableDBBackendName, 0},
    {&VXSys_t::enableExceptionInSeqBlob, 0},
    {&VXSys_t::enableVXSession, 0},
    {&VXSys_t::enableCaptureDataOutsideTxn, 0},
    {&VXSys_t::maxIPCount, 256},
    {&VXSys_t::otelEnabled, 0},
    {&VXSys_t::otelGlobal, 0},
    {&VXSys_t::correlationIDEnabled, 0},
    {&VXSys_t::tagsEnabled, 0},
    {&VXSys_t::sendTagRecords, 1},
    {&VXSys_t::vxVectorSeparator, '_'},
    {&VXSys_t::dataHeartbeatInterval, 300},
};

struct LongDefault {
    std::int64_t VXSys_t::*member;
    std::int64_t value;
};
constexpr LongDefault kLongDefaults[] = {
    {&VXSys_t::BCITraceMaxSize, 104857600},    {&VXSys_t::bciMaxNonServiceMethodsPerFP, 2147483647},
    {&VXSys_t::vxcHeartBeatThreshold, 500000}, {&VXSys_t::vxSessionIdleTimeOutSecs, 1800},
    {&VXSys_t::maxFPCountInSession, 0},        {&VXSys_t::fileReadTimeout, 60000000},
};

void setKeywordDefaults(VXSys_t& sys) {
    for (const IntDefault& row : kIntDefaults) vx_word_set(sys.*row.member, row.value);
    for (const LongDefault& row : kLongDefaults) vx_word_set(sys.*row.member, row.value);
    vx_word_set(sys.captureMethodForAllFP, 0);
    vx_word_set(sys.vxEnableDebugMode, 0);
    vx_word_set(sys.vxAgentDebugSession, 0);
}

// The auto-sensor channel and the reporting cycle on it.
void VXASSettingInit(VXSys_t& sys) {
    vx_word_set(sys.ASDataBufferSize, 262144);
    vx_word_set(sys.ASDataBufferMaxCount, 16);
    vx_word_set(sys.ASDataBufferMinCount, 2);
    vx_word_set(sys.ASReportInterval, 10000);
    vx_word_set(sys.ASSampleInterval, 500);
    vx_word_set(sys.vxMonitorInterval, 10000);
    vx_word_set(sys.vxMonitorIntervalInSec, 10);
}

// The proxy that an agent would take; the service itself only keeps the settings.
void VXAgentSettingInit(VXSys_t& sys) {
    vxlb_copy_text(sys.proxyHost, sizeof(sys.proxyHost), kDefaultProxyHost);
    sys.proxyPort = 1111;
}

void setServerDefaults(Server_t& server) {
    {
        const std::lock_guard lock(vxTextMutex);
        vxlb_copy_text(server.fpVersionID, sizeof(server.fpVersionID), kDefaultFpVersion);
    }
    server.originalZorEpochDiff.store(kOriginalZorEpochDiff, std::memory_order_relaxed);
    server.timeStampMask.store(0x3FFFFFFFFF, std::memory_order_relaxed);
    server.seqNoDigits.store(8, std::memory_order_relaxed);
    server.seqNumMask.store(0xFF, std::memory_order_relaxed);
}

// With the first call only: what threads of the instance drive, or read without a lock.
void setOnceDefaults(VXSys_t& sys) {
    sys.dataConnState.store(1, std::memory_order_relaxed);
    sys.autosensorConnState.store(1, std::memory_order_relaxed);
    sys.processId = static_cast<std::int32_t>(vxlb_get_pid());
    VXAgentSettingInit(sys);
}

// Every mutex of a context.
template <class Visit>
void eachMutex(vxApplication& app, Visit visit) {
    apr_thread_mutex_t** const mutexes[] = {
        &app.identity.messageMutex,
        &app.control.controlMutex,
        &app.control.controlSocket.closeMutex,
        &app.collectors.mutex,
        &app.data.chain.dumpMutex,
        &app.data.chain.listMutex,
        &app.data.dataSocket.closeMutex,
        &app.autoSensor.chain.dumpMutex,
        &app.autoSensor.chain.listMutex,
        &app.autoSensor.asSocket.closeMutex,
        &app.decoder.decodeMutex,
        &app.flowpath.poolMutex,
        &app.bt.btMapMutex,
        &app.bt.tagSequenceMutex,
        &app.bt.btTagMutex,
        &app.bt.monitorMutex,
        &app.method.mapMutex,
        &app.exceptionMonitor.mapMutex,
        &app.http.headerMutex,
        &app.control.outbox.mutex,
        &app.discovery.socket.closeMutex,
        &app.losses.mutex,
    };
    for (apr_thread_mutex_t** mutex : mutexes) visit(*mutex);
    for (VXExceptionTable_t& table : app.exceptions.tables) visit(table.mutex);
}

// Pages that are alike stay as they are: what was never written takes no memory.
void copyPages(char* to, const char* from, std::size_t size) {
    constexpr std::size_t kPage = 4096;
    for (std::size_t at = 0; at < size; at += kPage) {
        const std::size_t length = std::min(kPage, size - at);
        if (std::memcmp(to + at, from + at, length) != 0) std::memcpy(to + at, from + at, length);
    }
}

}  // namespace

void VXSysInit(const char* agentType) {
    vxApplication& app = *vxCurrent();
    const bool firstCall = vx_word_get(app.VXSys.bciStartUpTime) == 0;

    setKeywordDefaults(app.VXSys);
    setServerDefaults(app.Server);
    if (firstCall) setOnceDefaults(app.VXSys);
    app.control.controlConnClosed.store(0, std::memory_order_relaxed);
    setSharedText(app.retired, app.VXSys.sessionCookieName, kDefaultCookieName);
    if (!app.VXBCISetting.agentType.get()) setSharedText(app.retired, app.VXBCISetting.agentType, agentType);
    vx_word_set(app.VXSys.bciStartUpTime, vxlb_now_ms());
    VX_TRACE(1, kControlThread, kInfo, "Value of bciStartUpTime : '%lld' set.",
             static_cast<long long>(getBCIStartUpTime()));

    setVXHome();
    setVxBuild();
    VXASSettingInit(app.VXSys);
    VX_UPCALL(controlSockBufInit, app);
    for (const int ofResponse : {0, 1}) VX_UPCALL(initVXHttpReqRespCaptureSettings, ofResponse);
    VX_UPCALL(initVXDynamicSettings);
}

const char* vxFindHome(char* path, std::size_t size) {
    char home[kPathSize] = "";
    const char* found = nullptr;
    for (const char* name : kHomeVariables) {
        if (vxlb_get_env_var_value(name, home, sizeof(home)) != 0 || !*home) continue;
        found = name;
        break;
    }
    if (!found) VX_TRACE(1, kControlThread, kError, "VXHOME is not specified");
    vx_path_join(path, size, home, kHomeFolder);
    return found;
}

void setVXHome() {
    char path[kPathSize];
    vxFindHome(path, sizeof(path));
    vxApplication& app = *vxCurrent();
    setSharedText(app.retired, app.VXSys.vxHomePath, path);
}

void setProxyVXHome() {
    char path[kPathSize];
    vxFindHome(path, sizeof(path));
    if (VXProxy.vxHomePath && std::strcmp(VXProxy.vxHomePath, path) == 0) return;
    VXLB_FREE(VXProxy.vxHomePath, "text copy", -1);
    VXProxy.vxHomePath = vxlb_strdup(path);
}

const char* getVXHome() {
    const vxApplication* app = vxCurrent();
    if (const char* path = app ? app->VXSys.vxHomePath.get() : nullptr) return path;
    return VXProxy.vxHomePath ? VXProxy.vxHomePath : "";
}

int setVxBuild() {
    vxApplication* app = vxCurrent();
    if (!app) return -1;
    setSharedText(app->retired, app->VXSys.vxBuild, kBuildText);
    return app->VXSys.vxBuild.get() ? 0 : -1;
}

const char* getVxBuild() {
    const vxApplication* app = vxCurrent();
    return app ? app->VXSys.vxBuild.getOr(kBuildText) : kBuildText;
}

std::int64_t getBCIStartUpTime() {
    return vx_word_get(vxCurrent()->VXSys.bciStartUpTime);
}

bool vxMakeContextMutexes(vxApplication& app) {
    apr_pool_t* pool = app.udp.mutexPool ? app.udp.mutexPool : app.pool;
    bool allMade = true;
    eachMutex(app, [&](apr_thread_mutex_t*& mutex) { allMade = vxlb_make_mutex(mutex, pool) && allMade; });
    return allMade;
}

bool vxRenewContext(vxApplication& app) {
    vxApplication* fresh = vxNewApplication();
    if (!fresh) return false;
    std::vector<apr_thread_mutex_t*> kept;
    eachMutex(app, [&](apr_thread_mutex_t*& mutex) { kept.push_back(mutex); });
    eachMutex(*fresh, [&, next = kept.begin()](apr_thread_mutex_t*& mutex) mutable { mutex = *next++; });
    fresh->udp.mutexPool = app.udp.mutexPool;
    // The pins alone may be touched meanwhile, by who is about to find out that the context has gone.
    char* const to = reinterpret_cast<char*>(&app);
    const char* const from = reinterpret_cast<const char*>(fresh);
    const auto pinsAt = static_cast<std::size_t>(reinterpret_cast<char*>(&app.udp.pins) - to);
    const std::size_t behind = pinsAt + sizeof(app.udp.pins);
    copyPages(to, from, pinsAt);
    copyPages(to + behind, from + behind, sizeof(app) - behind);
    vxFreeApplication(fresh);
    return true;
}

std::array<VXSharedText*, 26> vxSharedTexts(vxApplication& app) {
    VXSys_t& sys = app.VXSys;
    VXBCISetting_t& setting = app.VXBCISetting;
    return {&sys.vxHomePath,           &sys.sessionCookieName,
            &sys.correlationIDHeader,  &sys.vxBuild,
            &setting.agentType,        &setting.agentVersion,
            &setting.agentAppName,     &setting.tierName,
            &setting.vxAppServerHost,  &setting.appName,
            &setting.encodedTierName,  &setting.encodedServerName,
            &setting.encodedAppName,   &setting.vxcHost,
            &setting.attributes,       &setting.tags,
            &setting.tierAttr,         &setting.endPointPrefix,
            &setting.SaasHost,         &setting.projectKey,
            &setting.authtoken,        &setting.tlsCaFile,
            &setting.agentCertFile,    &setting.agentKeyFile,
            &app.session.vxCookieName, &app.session.cookieDomainName};
}

void vxCopyKeywordText(char* destination, std::size_t size, const char* member, std::size_t memberSize) {
    if (size == 0) return;
    const std::lock_guard lock(vxTextMutex);
    const std::size_t held = strnlen(member, memberSize);
    const std::size_t length = held < size ? held : size - 1;
    std::memcpy(destination, member, length);
    destination[length] = '\0';
}

}  // namespace vx
