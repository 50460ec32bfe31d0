#include "commonlibc/proxyServer/vx_udp_release.h"

#include <cstdlib>
#include <utility>

#include "commonlibc/NIOThread.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXDataThread.h"
#include "commonlibc/VXInstrProfile.h"
#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/control_thread.h"
#include "commonlibc/exception/VXExceptionNames.h"
#include "commonlibc/exception/VXExceptionSettings.h"
#include "commonlibc/flowpath/VXFlowpathStop.h"
#include "commonlibc/http/VXHttpNameList.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_proxy_thread_ops.h"
#include "commonlibc/proxyServer/vx_udp_clients.h"
#include "commonlibc/proxyServer/vx_udp_ruckus.h"
#include "commonlibc/vxbt/vxbt_config.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int64_t kPinWaitUs = 1000;

void freeText(char*& text, const char* what) {
    VXLB_FREE(std::exchange(text, nullptr), what, -1);
}

void freeProcessTable(VXIdentity_t& identity) {
    processInfo_t** table = identity.processInfo.exchange(nullptr);
    for (std::int32_t i = 0; table && i < identity.processCapacity; ++i) {
        if (!table[i]) continue;
        freeText(table[i]->dataBuffer, "Free'ing data buffer");
        freeText(table[i]->discoveryTail, "discovery tail");
        VXLB_FREE(table[i]->epollPtr, "epollPtr", -1);
        VXLB_FREE(table[i], "processInfo", -1);
    }
    VXLB_FREE(table, "nProxyInstance->processInfo", -1);
    identity.processCapacity = 0;
}

void freeTexts(vxApplication& app) {
    for (VXSharedText* text : vxSharedTexts(app)) setSharedText(app.retired, *text, nullptr);
    freeRetiredTexts(app.retired);
    for (char*& text : app.keywords.text) freeText(text, "keyword text");
}

void freeLink(vxApplication& app) {
    freeText(app.control.ctrlBufInfo.read_socket_buf, "control socket buffer");
    freeText(app.control.outbox.text, "control outbox");
    VXLB_FREE(std::exchange(app.collectors.vxc_server_arr, nullptr), "vxc_server_arr", -1);
    app.collectors.vxc_server_list_size = 0;
    vxFreeChain(app.data.chain);
    vxFreeChain(app.autoSensor.chain);
    makeInstrProfTableFree();
    VXLB_FREE(std::exchange(app.files.heldProfiles, nullptr), "InstrProfTable", -1);
    for (kywdInfo_t& entry : app.files.kywdInfo) freeText(entry.content, "file content");
}

void freeMethods(vxApplication& app) {
    VXMethodState_t& method = app.method;
    vxAggFree(method.backendArr);
    vxAggFree(method.methodArr);
    for (mPP* record = std::exchange(method.firstMethod, nullptr); record;) {
        mPP* next = record->next;
        for (char* text : {record->methodName, record->moduleName, record->calloutText, record->returnType,
                           record->arguments})
            VXLB_FREE(text, "text copy", -1);
        setSharedText(app.retired, record->aliasMethodName, nullptr);
        VXLB_FREE(record, "methodPropProperties", -1);
        record = next;
    }
    VXLB_FREE(method.methodHashMapNode.exchange(nullptr), "methodHashMapNode", -1);
}

void closeLinks(vxApplication& app) {
    app.control.closeCtrlConFlag.store(1, std::memory_order_release);
    app.control.proxyStopRequested.store(1, std::memory_order_release);
    vxlb_shared_close(app.control.controlSocket);
    vxlb_shared_shutdown(app.data.dataSocket);
    vxlb_shared_shutdown(app.autoSensor.asSocket);
    vxJoinDataThread(app);
    vxJoinAutoSensorThread(app);
}

}  // namespace

void freeUDPConnections(vxApplication* app) {
    vxSetCurrent(app);
    app->identity.udpTimeoutFlag.store(0, std::memory_order_release);
    closeLinks(*app);
    dropResetQueueOfInstance(app);
    while (app->udp.pins.load() != 0) vxlb_sleep_us(kPinWaitUs);
    vxUdpRelease(*app);
    const std::lock_guard lock(VXUdp.registration);
    app->udp.settled = 1;
}

void vxUdpRelease(vxApplication& app) {
    vxSetCurrent(&app);
    const VXGuard decode(app.decoder.decodeMutex);
    vxDropBusyList();
    vxUdpFreeClients(app);
    vxUdpFreeRuckus(app);
    freeLink(app);
    vxAggFree(app.bt.aggDataArr);
    vxFreeBtStore();
    vxAggFree(app.exceptionMonitor.exceptionArr);
    vxFreeExceptionNames();
    parseExceptionFilteringList("");
    freeMethods(app);
    for (VXHttpNameList* list : {&app.http.request.list, &app.http.response.list, &app.http.valuesAsId})
        vxFreeNameList(*list);
    freeProcessTable(app.identity);
    freeclientdata(app);
    freeTexts(app);
}

bool vxUdpRenew(vxApplication& app) {
    vxJoinControlThread(app);
    if (app.pool) apr_pool_destroy(std::exchange(app.pool, nullptr));
    return vxRenewContext(app);
}

}  // namespace vx
