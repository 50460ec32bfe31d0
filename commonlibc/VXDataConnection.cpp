#include "commonlibc/VXDataConnection.h"

#include <apr_network_io.h>

#include <cstring>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXConnectMessages.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::int64_t kConnectTimeUs = 10000000;
constexpr std::int64_t kSendTimeUs = 1000000;
constexpr std::size_t kNewConnectionSize = 1024;
constexpr std::size_t kTextRecordSize = 5120;

void destroyConnectionPool(VXDataState_t& data) {
    if (data.connectionPool) apr_pool_destroy(data.connectionPool);
    data.connectionPool = nullptr;
}

bool connectOverTcp(vxApplication& app, const VXCollectorRecord& collector, char* error) {
    if (!collector.host[0] || collector.port < 1) return false;
    VXDataState_t& data = app.data;
    destroyConnectionPool(data);
    if (apr_pool_create(&data.connectionPool, data.dataPool) != APR_SUCCESS) return false;
    apr_socket_t* socket =
        vxlb_create_client_con(collector.host, collector.port, data.connectionPool, kConnectTimeUs, error);
    if (!socket) {
        destroyConnectionPool(data);
        return false;
    }
    apr_socket_timeout_set(socket, kSendTimeUs);
    vxlb_shared_put(data.dataSocket, socket);
    return true;
}

bool sendConnectLineOverTcp(VXDataState_t& data, const char* line, std::int32_t length) {
    char error[kSockErrorSize] = "";
    apr_socket_t* socket = data.dataSocket.get();
    if (vxlb_send_n_bytes(socket, line, length, error) < 0) {
        VX_TRACE(1, kControlThread, kError,
                 "Unable to send control req message. Going to closing connection");
        return false;
    }
    return vxlb_send_n_bytes(socket, "\n", 1, error) >= 0;
}

// "%d,%s\n" in a heap buffer.
void dumpTextRecord(int number, const char* text, const char* allocationName) {
    char* record = static_cast<char*>(VXLB_MALLOC(kTextRecordSize, allocationName, -1));
    if (!record) return;
    VXWriter out(record, kTextRecordSize - 1);
    out.number(number).put(',').recordText(text).endLine();
    dumpData(record, static_cast<std::int64_t>(out.length()));
    VXLB_FREE(record, allocationName, -1);
}

void replayIfAsked(vxApplication& app) {
    VX_UPCALL(clearBtMetaDataFlags);
    if (app.data.replayedThisRun && !app.Server.doNotDumpMetaData.load(std::memory_order_acquire)) return;
    VX_UPCALL(replayMetaData);
    app.data.replayedThisRun = 1;
    app.Server.doNotDumpMetaData.store(0, std::memory_order_release);
}

}  // namespace

bool openDataConnection(vxApplication& app) {
    const VXCollectorRecord collector = vxCollectorInUse();
    VX_TRACE(1, kControlThread, kInfo,
             "[VX DR Feature]: DATA THREAD: Active VXC Server Info: [Host | Port] = [%s | %d]",
             collector.host, collector.port);
    char error[kSockErrorSize] = "";
    const bool overLws = app.control.lws_active.load(std::memory_order_acquire) == 1;
    const bool connected = overLws ? VX_UPCALL(create_lws_data_connection, collector.host, collector.port)
                                   : connectOverTcp(app, collector, error);
    if (!connected) {
        VX_TRACE(1, kControlThread, kError, "Error while creating the data connection with %s:%d. Error %s\n",
                 collector.host, collector.port, error);
        return false;
    }
    VX_TRACE(1, kControlThread, kInfo, "Data connection created.");
    if (!overLws) get_data_ip_and_port();
    return true;
}

void close_data_connection() {
    vxApplication* app = vxCurrent();
    VXDataState_t& data = app->data;
    VX_UPCALL(dropResetQueueOfInstance, app);
    void* wsi = data.dataWsi.exchange(nullptr);
    VX_TRACE(1, kControlThread, kInfo, "Going to close Data connection of %s:%d with %s:%d.\n",
             data.dataConnSourceIP, data.dataConnSourcePort, data.dataConnDestIP, data.dataConnDestPort);
    data.controlCommunicationBusyFlag.store(0, std::memory_order_release);
    vxlb_shared_close(data.dataSocket);
    destroyConnectionPool(data);
    if (wsi) VX_UPCALL(kill_lws_data_connection, wsi);
}

bool send_data_con_req_msg_to_vxc() {
    vxApplication* app = vxCurrent();
    setControlDataReqMessage();
    const VXBCISetting_t& setting = app->VXBCISetting;
    if (app->control.lws_active.load(std::memory_order_acquire) == 1)
        return VX_UPCALL(send_data_via_lws_socket, setting.dataMessage, setting.dataMessageLen) != 0;
    return !sendConnectLineOverTcp(app->data, setting.dataMessage, setting.dataMessageLen);
}

void get_data_ip_and_port() {
    VXDataState_t& data = vxCurrent()->data;
    apr_socket_t* socket = data.dataSocket.get();
    if (!socket) return;
    get_src_addr(socket, data.dataConnSourceIP, sizeof(data.dataConnSourceIP), &data.dataConnSourcePort);
    get_dst_addr(socket, data.dataConnDestIP, sizeof(data.dataConnDestIP), &data.dataConnDestPort);
}

void announceDataConnection(vxApplication& app) {
    if (app.control.lws_active.load(std::memory_order_acquire) == 1) get_data_ip_and_port();
    app.VXSys.dataConnState.store(1, std::memory_order_release);
    VX_TRACE(1, kControlThread, kInfo, "Dumped 99 record, skt = %p,proxy flag:%d,and proxy mode:%d",
             static_cast<void*>(app.data.dataSocket.get()), proxyServerFlag.load(std::memory_order_relaxed),
             app.VXSys.proxyMode);
    dumpNewConnectionRecord();
    replayIfAsked(app);
    if (!vx_word_get(app.VXSys.sendTagRecords)) return;
    tag_record();
    attr_record();
}

void dumpNewConnectionRecord() {
    vxApplication* app = vxCurrent();
    char version[sizeof(app->Server.fpVersionID)];
    vxCopyKeywordText(version, sizeof(version), app->Server.fpVersionID, sizeof(app->Server.fpVersionID));
    char record[kNewConnectionSize];
    VXWriter out(record, sizeof(record) - 1);
    out.number(99).text(",NewConnection,FPGVersion:").recordText(version).endLine();
    dumpData(record, static_cast<std::int64_t>(out.length()));
    app->Server.isTenRecordDump.store(1, std::memory_order_release);
}

void tag_record() {
    const char* tags = vxCurrent()->VXBCISetting.tags.get();
    if (tags && tags[0]) dumpTextRecord(110, tags, "buffer_tag");
}

void attr_record() {
    const char* attributes = vxCurrent()->VXBCISetting.attributes.get();
    if (attributes && std::strlen(attributes) > 2) dumpTextRecord(111, attributes, "buffer_attr");
}

}  // namespace vx
