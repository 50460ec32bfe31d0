#include "commonlibc/NIOConnection.h"

#include <string_view>

#include "commonlibc/NIODataDispatcher.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXConnectMessages.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXDataLink.h"
#include "commonlibc/VXDataTransfer.h"
#include "commonlibc/lws_handler.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int64_t kSendTimeUs = 250000;
constexpr std::int64_t kSettleTimeUs = 300000;  // for what is on its way when a connection is closed

bool overLws(const vxApplication& app) {
    return app.control.lws_active.load(std::memory_order_acquire) == 1;
}

VXDataLink linkOf(VXAutoSensorState_t& sensor) {
    return {sensor.asSocket, sensor.asWsi, sensor.connectionPool, sensor.pool};
}

bool stopped() {
    return checkAndStopThreadAS() != 0;
}

bool connectionOpen(const VXAutoSensorState_t& sensor) {
    return sensor.asSocket.get() || sensor.asWsi.load(std::memory_order_acquire);
}

void closeFormer(const VXAutoSensorState_t& sensor) {
    if (!connectionOpen(sensor)) return;
    VX_TRACE(1, kControlThread, kInfo,
             "Going to close AutoSensor connection. [Source IP : Port] ['%s':%d] [Destination IP : Port] "
             "['%s':%d].",
             sensor.sourceIP, sensor.sourcePort, sensor.destIP, sensor.destPort);
    closeAutoSensorConnection();
}

bool connect(vxApplication& app) {
    const VXCollectorRecord collector = vxCollectorInUse();
    if (app.collectors.dr_enabled.load(std::memory_order_acquire))
        VX_TRACE(1, kControlThread, kInfo,
                 "[VX DR Feature]; AUTOSENSOR THREAD : Active VXC Server Info: [Host | Port] = [%s | %d]",
                 collector.host, collector.port);
    char error[kSockErrorSize] = "";
    const bool connected = overLws(app) ? create_lws_as_connection(collector.host, collector.port)
                                        : vxOpenLink(linkOf(app.autoSensor), collector, kSendTimeUs, error);
    if (!connected)
        VX_TRACE(1, kControlThread, kError,
                 "Error while creating the AutoSensor connection with %s:%d. Error %s\n", collector.host,
                 collector.port, error);
    return connected;
}

void traceConnected(const VXAutoSensorState_t& sensor) {
    VX_TRACE(1, kControlThread, kInfo, "AutoSensor connection created.");
    get_as_ip_and_port();
    VX_TRACE(1, kControlThread, kInfo,
             "AutoSensor Connection. [Source IP : Port] ['%s':%d] created with [Destination IP : Port] "
             "['%s':%d].",
             sensor.sourceIP, sensor.sourcePort, sensor.destIP, sensor.destPort);
}

int lost(VXAutoSensorState_t& sensor) {
    VX_TRACE(1, kControlThread, kError,
             "autoSensorBreak AutoSensorThread break due failed in apr_socket_send");
    closeAutoSensorConnection();
    sensor.breakFlag.store(1, std::memory_order_release);
    return kSendLost;
}

int sendChain(VXAutoSensorState_t& sensor) {
    const int result = vxSendChain(sensor.chain, vxAutoSensorCarrier(sensor), checkAndStopThreadAS);
    return result == kSendLost ? lost(sensor) : result;
}

// How much of a report goes into the chain at a time: whole records, as many as a node has room for, at least
// one. More than two nodes hold does not fit, however many are free.
std::int32_t pieceOf(const VXBufferChain& chain, const char* data, std::int32_t length) {
    const VXBufferNode* node = chain.VXBCIAgentBB.load(std::memory_order_acquire);
    if (!node) node = chain.VXCollectorBB.load(std::memory_order_acquire);
    if (!node || length <= node->buff_size) return length;
    const std::string_view report(data, static_cast<std::size_t>(length));
    const auto room = static_cast<std::size_t>(node->buff_size);
    std::size_t end = report.rfind('\n', room - 1);
    if (end == std::string_view::npos) end = report.find('\n', room);
    return end == std::string_view::npos ? length : static_cast<std::int32_t>(end) + 1;
}

// 0, or a code of VXDataDispatcher.h.
int dumpAndSendPiece(const char* data, std::int32_t length) {
    const int result = vxTryDumpAS(data, length);
    if (result == 0 || result == kChainCut || flushData() == kSendLost) return result;
    const int second = vxTryDumpAS(data, length);
    if (second == 0) flushData();
    return second;
}

}  // namespace

bool startASVXCollectorCommunication() {
    vxApplication& app = *vxCurrent();
    VXAutoSensorState_t& sensor = app.autoSensor;
    VX_TRACE(1, kControlThread, kInfo, "AutoSensor Thread created successfully.");
    VX_TRACE(1, kControlThread, kInfo, "Creating socket for AutoSensor\n");
    closeFormer(sensor);
    if (!connect(app)) return false;
    traceConnected(sensor);
    if (buff_list_init_as() == 1) VX_TRACE(1, kControlThread, kError, "Error in buff_list_init_as");
    if (send_autoSensor_con_req_msg_to_vxc()) {
        VX_TRACE(1, kControlThread, kError,
                 "autoSensorBreak AutoSensorThread break due to send_autoSensor_con_req_msg_to_vxc == FAIL");
        closeAutoSensorConnection();
        return false;
    }
    app.VXSys.autosensorConnState.store(1, std::memory_order_release);
    return true;
}

bool send_autoSensor_con_req_msg_to_vxc() {
    vxApplication& app = *vxCurrent();
    setControlAutoSensorReqMessage();
    const VXBCISetting_t& setting = app.VXBCISetting;
    const bool sent = overLws(app) ? send_as_data_via_lws_socket(setting.autoSensorMessage,
                                                                 setting.autoSensorMessageLen) == 0
                                   : vxSendAll(app.autoSensor.asSocket.get(), setting.autoSensorMessage,
                                               setting.autoSensorMessageLen, stopped);
    if (!sent) VX_TRACE(1, kControlThread, kError, "Unable to send the message.");
    return !sent;
}

void get_as_ip_and_port() {
    VXAutoSensorState_t& sensor = vxCurrent()->autoSensor;
    if (const VXLwsConnection* connection = sensor.asWsi.load(std::memory_order_acquire)) {
        vxLwsEndOf(*connection, true, sensor.sourceIP, sizeof(sensor.sourceIP), &sensor.sourcePort);
        vxLwsEndOf(*connection, false, sensor.destIP, sizeof(sensor.destIP), &sensor.destPort);
        return;
    }
    apr_socket_t* socket = sensor.asSocket.get();
    if (!socket) return;
    get_src_addr(socket, sensor.sourceIP, sizeof(sensor.sourceIP), &sensor.sourcePort);
    get_dst_addr(socket, sensor.destIP, sizeof(sensor.destIP), &sensor.destPort);
}

void closeAutoSensorConnection() {
    VXAutoSensorState_t& sensor = vxCurrent()->autoSensor;
    vxCloseLink(linkOf(sensor), sensor.chain, vxlb_steady_us() + kSettleTimeUs);
}

VXCarrier vxAutoSensorCarrier(const VXAutoSensorState_t& sensor) {
    return {sensor.asSocket.get(), sensor.asWsi.load(std::memory_order_acquire), kSendTimeUs};
}

int sendDataToVXC() {
    VXAutoSensorState_t& sensor = vxCurrent()->autoSensor;
    return sensor.asSocket.get() ? sendChain(sensor) : kSendLost;
}

int send_as_data_to_vxc() {
    VXAutoSensorState_t& sensor = vxCurrent()->autoSensor;
    return sensor.asWsi.load(std::memory_order_acquire) ? sendChain(sensor) : kSendLost;
}

int flushData() {
    moveCommonPartialToReadList();
    return vxCurrent()->autoSensor.asWsi.load(std::memory_order_acquire) ? send_as_data_to_vxc()
                                                                         : sendDataToVXC();
}

bool dumpAndSendDataToVXC(const char* data, std::int32_t length) {
    do {
        const std::int32_t piece = pieceOf(vxCurrent()->autoSensor.chain, data, length);
        if (dumpAndSendPiece(data, piece) != 0) {
            vxRefuseAS(data, length);  // the rest too: a peer that takes nothing is waited for once
            return false;
        }
        data += piece;
        length -= piece;
    } while (length > 0);
    return true;
}

int checkAndStopThreadAS() {
    const vxApplication& app = *vxCurrent();
    const Server_t& server = app.Server;
    const VXControlState_t& control = app.control;
    const bool goesOn = server.testRunRunning.load(std::memory_order_acquire) &&
                        server.asDataRunning.load(std::memory_order_acquire) &&
                        !app.autoSensor.asStopFlag.load(std::memory_order_acquire) &&
                        !control.closeCtrlConFlag.load(std::memory_order_acquire) &&
                        !control.controlConnClosed.load(std::memory_order_acquire) &&
                        !control.proxyStopRequested.load(std::memory_order_acquire) &&
                        !proxyStopFlag.load(std::memory_order_acquire);
    if (goesOn) return 0;
    VX_TRACE(2, kControlThread, kInfo, "AutoSensor thread is to be stopped");
    return 1;
}

}  // namespace vx
