#include "commonlibc/vx_agent.h"

#include <apr_atomic.h>
#include <apr_general.h>
#include <apr_signal.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "commonlibc/Server.h"
#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXDigestMonitor.h"
#include "commonlibc/VXKeywords.h"
#include "commonlibc/VXLogRetention.h"
#include "commonlibc/VXMetadataReplay.h"
#include "commonlibc/VXMonitorCycle.h"
#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/VXProxySettings.h"
#include "commonlibc/VXSettingReport.h"
#include "commonlibc/VXSettingsFile.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_thread.h"
#include "commonlibc/flowpath/VXFlowpathStop.h"
#include "commonlibc/http/VXHttpHeaderMap.h"
#include "commonlibc/http/VXHttpReqRespCaptureSettings.h"
#include "commonlibc/proxyServer/vx_proxy_lws.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_proxy_server.h"
#include "commonlibc/proxyServer/vx_proxy_thread_ops.h"
#include "commonlibc/proxyServer/vx_udp_clients.h"
#include "commonlibc/proxyServer/vx_udp_release.h"
#include "commonlibc/proxyServer/vx_udp_ruckus.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::size_t kAgentLogSize = 131072;
constexpr std::int32_t kInstanceTableAgentSide = 2;
constexpr const char* kLoopback = "127.0.0.1";
constexpr const char* kAgentVersion = "v1.0.0";

constexpr std::int32_t kSlowMs = 3000, kVerySlowMs = 5000;
constexpr std::int32_t kAutoSensorBufferSize = 262144;

bool inService() {
    return proxyServerFlag.load(std::memory_order_relaxed) != 0;
}

void startApr() {
    apr_initialize();
    static const int registered = std::atexit(apr_terminate);
    static_cast<void>(registered);
}

// What an earlier start that came to nothing has made is taken again: the tables and their root context.
void setProxyDefaults() {
    VXLB_FREE(VXProxy.vxHomePath, "text copy", -1);
    VXLB_FREE(VXProxy.vxcHost, "text copy", -1);
    for (const VXReadBuffer* buffer : {&VXProxy.controlBuf, &VXProxy.dataBuf, &VXProxy.discoveryBuf})
        VXLB_FREE(buffer->buffer, "control buffer read_socket_buf", -1);
    vxEndThreadOperations(VXProxy.threadOps);
    std::atomic<vxApplication*>* const attached = VXProxy.attached.load(std::memory_order_relaxed);
    const std::int32_t slots = VXProxy.instanceTableSize;
    std::destroy_at(&VXProxy);
    std::construct_at(&VXProxy);
    vxlb_copy_text(VXProxy.proxyHost, sizeof(VXProxy.proxyHost), kLoopback);
    VXProxy.proxyPort = 1111;
    VXProxy.numUDPThreads = 10;
    VXProxy.udpTableSize = 32;
    VXProxy.instanceTableSize = inService() ? kInstanceTableStart : kInstanceTableAgentSide;
    if (slots == VXProxy.instanceTableSize) VXProxy.attached.store(attached, std::memory_order_relaxed);
    VXProxy.memThresholdCheckModes = 1;
    VXProxy.memUsageThresholdPct = 20;
    VXProxy.memUsageThresholdSizeMB = 2048;
}

// The root context, current, in slot 0; a start makes each part of it once. Null without memory.
vxApplication* makeRoot(VXRootUse use) {
    if (!vxMakeInstanceTables()) return nullptr;
    vxApplication* root = use == VXRootUse::kService ? instanceAt(0) : nullptr;
    if (!root) root = vxNewApplication();
    if (!root) return nullptr;
    VXProxyInstance.load()[0].store(root, std::memory_order_release);
    if (!root->pool && apr_pool_create(&root->pool, nullptr) != APR_SUCCESS) return nullptr;
    vxSetCurrent(root);
    vxMakeContextMutexes(*root);
    if (!root->agentLogBuffer)
        root->agentLogBuffer = static_cast<char*>(VXLB_MALLOC(kAgentLogSize, "agent log buffer", 0));
    if (root->agentLogBuffer) *root->agentLogBuffer = '\0';
    root->agentLogBufferFree = 1;
    if (inService() && !root->ruckusMap) root->ruckusMap = create_hashmap(root->pool);
    VXProxy.numInstance.store(1, std::memory_order_release);
    return root;
}

void replaceText(char*& text, const char* value) {
    VXLB_FREE(text, "text copy", -1);
    text = vxlb_strdup(value);
}

void readProxySettings(VXRootUse use) {
    if (!inService()) {
        initializeVXApplicationGlobal();
        return;
    }
    vxlb_copy_text(VXProxy.proxyHost, sizeof(VXProxy.proxyHost), kLoopback);
    VXProxy.proxyMode = 1;
    setProxyVXHome();
    if (use == VXRootUse::kService) {
        readVXProxyConfig();
    } else {
        vxReadProxyFile();
    }
}

void nameRoot(vxApplication& root, const char* poolName, const char* agentType) {
    replaceText(root.identity.agentName, poolName);
    setAppName(poolName);
    setAgentType(agentType);
    setAgentVersion(kAgentVersion);
}

void readAgentSettings() {
    const bool environment = read_env_var() == 0;
    if (read_conf_file() != 0 || !environment)
        VX_TRACE(1, kControlThread, kInfo, "configuration reading form starting");
}

// Faults of the settings, kept until the settings have given the trace its level.
constexpr std::size_t kKeptFaults = 100;
std::vector<std::string> settingFaults;
int faultCount = 0;

void keepFault(const VXSettingReport& report) {
    std::string fault = vxSettingFault(report);
    if (fault.empty()) return;
    ++faultCount;
    if (settingFaults.size() < kKeptFaults) settingFaults.push_back(std::move(fault));
}

void tellFaults() {
    for (const std::string& fault : settingFaults) VX_TRACE(1, kControlThread, kWarning, "%s", fault.c_str());
    settingFaults = {};
    const int faults = std::exchange(faultCount, 0);
    const bool named = *vxCollectorAt(0).host != '\0';
    if ((faults || !named) && vxListenerReport.settingsAtFault)
        vxListenerReport.settingsAtFault(faults, named);
}

void makeFlowpathTables(vxApplication& root) {
    if (!root.identity.isProxyInstance) {
        VX_TRACE(1, kControlThread, kInfo, "Going to create hashMap of flowpath instance to TLS");
        if (!root.flowpath.fpi_tls_map) root.flowpath.fpi_tls_map = create_hashmap(root.pool);
        if (!VXProxy.proxyMode) create_tls_pool(0);
        initVXManageTIdToTLocal();
    }
    apr_atomic_init(root.pool);
    root.Server.flowpathCounter.store(0, std::memory_order_relaxed);
    root.VXSys.processId = static_cast<std::int32_t>(vxlb_get_pid());
}

void enterLoop(vxApplication& root) {
    if (VXProxy.proxyMode) {
        VX_TRACE(1, kControlThread, kInfo, "Proxy is running ...");
        if (VXProxy.proxyAgentWebSocket) {
            vxProxyInitLws();
        } else {
            vxProxyInit();
        }
        return;
    }
    VX_TRACE(1, kControlThread, kInfo, "Going to start control thread ...");
    vxStartControlThread(&root);
}

}  // namespace

vxApplication* vxMakeRoot(const char* poolName, const char* processName, const char* agentType,
                          VXRootUse use) {
    vxFillUpcalls();
    startApr();
    setProxyDefaults();
    vxApplication* root = makeRoot(use);
    if (!root) return nullptr;
    replaceText(gPool, poolName);
    replaceText(gProcessName, processName);
    VXSysInit(agentType);
    // A start after one that came to nothing goes on in the same files.
    if (use == VXRootUse::kService && !trace_log_key.load()) VXTraceInit(gProcessName, gPool);
    vxDigestInit();
    VXBCISettingInit();
    readProxySettings(use);
    nameRoot(*root, poolName, agentType);
    readAgentSettings();
    return root;
}

void agent_init(const char* poolName, int /*poolNameType*/, const char* processName, const char* agentType,
                int /*flags*/) {
    vxSettingObserver = keepFault;
    vxApplication* root = vxMakeRoot(poolName, processName, agentType, VXRootUse::kService);
    vxSettingObserver = nullptr;
    if (!root) return;
    tellFaults();
    vx_check_log_file();
    root->VXSys.proxyMode = VXProxy.proxyMode;
    apr_signal_init(root->pool);
    apr_signal(SIGPIPE, SIG_IGN);
    VX_TRACE(1, kControlThread, kInfo, "SIGPIPE is ignored");
    makeFlowpathTables(*root);
    enterLoop(*root);
}

void initializeVXApplicationGlobal() {
    vxApplication& app = *vxCurrent();
    app.identity.isProxyInstance = 1;
    vx_word_set(app.VXSys.ASDataBufferSize, kAutoSensorBufferSize);
    app.bt.allSlowThreshold.store(kSlowMs, std::memory_order_relaxed);
    app.bt.allVerySlowThreshold.store(kVerySlowMs, std::memory_order_relaxed);
    app.control.retryInterval.store(kDefaultRetryIntervalUs, std::memory_order_relaxed);
}

void vxFillUpcalls() {
    vxUpcalls.controlSockBufInit = controlSockBufInit;
    vxUpcalls.dumpFpFromBusyList = dumpFpFromBusyList;
    vxUpcalls.dumpNdDataOverRecord = dumpNdDataOverRecord;
    vxUpcalls.setdefaultValues = setdefaultValues;
    vxUpcalls.ResetMonitorData = ResetMonitorData;
    vxUpcalls.freeTagStructures = freeTagStructures;
    vxUpcalls.monitorCycle = monitorCycle;
    vxUpcalls.clearBtMetaDataFlags = clearBtMetaDataFlags;
    vxUpcalls.clearHeaderMetaDataFlags = clearHeaderMetaDataFlags;
    vxUpcalls.initVXHttpReqRespCaptureSettings = initVXHttpReqRespCaptureSettings;
    vxUpcalls.replayMetaData = replayMetaData;
    vxUpcalls.dropResetQueueOfInstance = dropResetQueueOfInstance;
    vxUpcalls.markLongIdleTransactions = markLongIdleTransactions;
    vxUpcalls.SendMessageOnUDPSocket = SendMessageOnUDPSocket;
    vxUpcalls.freeUDPConnections = freeUDPConnections;
    vxUpcalls.HandleVexalineMessage = HandleVexalineMessage;
    vxUpcalls.initializeVXApplicationGlobal = initializeVXApplicationGlobal;
}

}  // namespace vx
