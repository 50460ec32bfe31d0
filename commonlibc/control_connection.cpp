#include "commonlibc/control_connection.h"

#include <cstdio>

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXConnectMessages.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/control_outbox.h"
#include "commonlibc/lws_handler.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::int64_t kConnectTimeUs = 10000000;
constexpr std::size_t kHeartbeatSize = 2048;
constexpr int kHeartbeatsPerTrace = 5;

bool createWithLws(const VXCollectorRecord& endpoint, char* error) {
    if (create_lws_control_connection(endpoint.host, endpoint.port)) return true;
    vxlb_copy_text(error, kSockErrorSize, "no connection over libwebsockets");
    return false;
}

void giveUpHeartbeat(const char* error) {
    VX_TRACE(1, kControlThread, kError, "Error Buffer - %s", error);
    VX_TRACE(
        1, kControlThread, kError,
        "controlBreak Unable to send heartbeat message to control connection. Going to close connection");
    control_connection_cleanup();
}

}  // namespace

void controlSockBufInit(vxApplication& app) {
    ctrlBufInfo_t& info = app.control.ctrlBufInfo;
    info.size = kControlBufSize;
    auto* block = static_cast<char*>(
        VXLB_REALLOC(info.read_socket_buf, kControlBufSize + 1, "control socket buffer", -1));
    if (block) info.read_socket_buf = block;
    controlSockBufReset(app);
}

void controlSockBufReset(vxApplication& app) {
    ctrlBufInfo_t& info = app.control.ctrlBufInfo;
    info.readOffset = 0;
    info.writeOffset = 0;
    info.readBytes = 0;
    info.skipToNewline = 0;
    if (info.read_socket_buf) *info.read_socket_buf = '\0';
}

bool create_control_conn(const VXCollectorRecord& endpoint, apr_pool_t* pool, char* error) {
    vxApplication& app = *vxCurrent();
    *error = '\0';
    if (!*endpoint.host || endpoint.port < 1) {
        vxlb_copy_text(error, kSockErrorSize, "no collector host or port");
        return false;
    }
    if (app.control.lws_active) return createWithLws(endpoint, error);
    apr_socket_t* socket = vxlb_create_client_con(endpoint.host, endpoint.port, pool, kConnectTimeUs, error);
    if (!socket) return false;
    vxlb_shared_put(app.control.controlSocket, socket);
    return true;
}

bool send_control_con_req_msg_to_vxc() {
    vxApplication& app = *vxCurrent();
    setControlConnectionReqMessage();
    const char* message = app.VXBCISetting.controlMessage;
    const std::int32_t length = app.VXBCISetting.controlMessageLen;
    if (app.control.lws_active) {
        VX_TRACE(1, kControlThread, kInfo, "Sent control connection request message '%s'", message);
        if (send_control_data_via_lws_socket(message, length) == 0) return false;
        VX_TRACE(1, kControlThread, kError, "Control conn req to send via lws failed");
        return true;
    }
    char error[kSockErrorSize] = "";
    apr_socket_t* socket = app.control.controlSocket.get();
    if (!socket) return true;
    if (vxlb_send_n_bytes(socket, message, length, error) < 0) {
        VX_TRACE(2, kControlThread, kError, "Unable to send Init message '%s'", message);
        return true;
    }
    VX_TRACE(1, kControlThread, kInfo, "Sent control connection request message '%s'", message);
    return false;
}

void send_control_conn_heartbeat_to_vxc() {
    vxApplication& app = *vxCurrent();
    VXControlState_t& control = app.control;
    char line[kHeartbeatSize];
    const int length = std::snprintf(line, sizeof(line), "vx_control_req:action=reconnect;heartBeat %d;\n",
                                     control.heartBeatSent);
    if (++control.heartBeatSent % kHeartbeatsPerTrace == 0)
        VX_TRACE(1, kControlThread, kInfo,
                 "Sending Heart Beat (empty line) to VXC as no data received in last %lld (ms)",
                 static_cast<long long>(vxlb_steady_ms() - control.lastHeartBeatTime));
    if (control.lws_active) {
        if (!vxOutboxFinish(app) || send_control_data_via_lws_socket(line, length) != 0)
            control_connection_cleanup();
        return;
    }
    char error[kSockErrorSize] = "";
    if (!vxOutboxFinish(app) || vxlb_send_n_bytes(control.controlSocket.get(), line, length, error) < 0)
        giveUpHeartbeat(error);
}

void get_ip_and_port() {
    vxApplication& app = *vxCurrent();
    VXBCISetting_t& setting = app.VXBCISetting;
    int port = 0;
    if (const VXLwsConnection* connection = app.control.controlWsi.load(std::memory_order_acquire)) {
        vxLwsEndOf(*connection, true, setting.controlSourceIP, sizeof(setting.controlSourceIP), &port);
        if (port > 0) setting.controlSourcePort = port;
    } else if (apr_socket_t* socket = app.control.controlSocket.get()) {
        if (get_src_addr(socket, setting.controlSourceIP, sizeof(setting.controlSourceIP), &port) == 0)
            setting.controlSourcePort = port;
    }
    const VXCollectorRecord active = vxCollectorAt(app.collectors.activeVXC);
    vxlb_copy_text(app.control.destinationIP, sizeof(app.control.destinationIP), active.host);
    app.control.destinationPort = active.port;
    VX_TRACE(
        1, kControlThread, kInfo,
        "Control connection established [Destination | Port] = ['%s' | '%d'] and [Source | Port] = ['%s' "
        "| '%d']",
        app.control.destinationIP, app.control.destinationPort, setting.controlSourceIP,
        setting.controlSourcePort.load());
}

void noteConnection(vxApplication& app) {
    std::snprintf(app.control.connDestination, sizeof(app.control.connDestination), "%s:%d",
                  app.VXBCISetting.vxcHost.getOr(""), app.VXBCISetting.vxcPort.load());
    app.control.lastConnectionTimeStamp = vxlb_now_ms();
    app.control.connectedAtMs = vxlb_steady_ms();
}

void setConnectionChannel() {
    vxApplication& app = *vxCurrent();
    const std::int32_t protocol = app.control.ActiveAgentProtocolIndex;
    if (protocol < kProtocolTCP || protocol > kProtocolWSS) {
        VX_TRACE(1, kControlThread, kWarning, "Unknown protocol");
        return;
    }
    app.control.lws_active = protocol == kProtocolTCP ? 0 : 1;
    vxSetCollectorProtocol(app.collectors.activeVXC, protocol, getProtocolPort(protocol));
}

void closeControlConnection(vxApplication& app) {
    VXControlState_t& control = app.control;
    vxlb_shared_close(control.controlSocket);
    if (!control.controlWsi.load(std::memory_order_acquire)) return;
    vxOutboxClose(app);  // nobody wakes what is about to end
    vxLwsEndHandle(control.controlWsi);
}

void control_connection_cleanup() {
    vxApplication& app = *vxCurrent();
    {
        const VXGuard lock(app.identity.messageMutex);
        app.Server.replyReceived = 0;  // who registers from here on is told by the next reply
    }
    closeControlConnection(app);
    app.Server.testRunRunning = 0;
    VX_TRACE(1, kControlThread, kInfo, "Control connection closed.");
}

}  // namespace vx
