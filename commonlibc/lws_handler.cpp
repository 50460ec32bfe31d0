#include "commonlibc/lws_handler.h"

#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/platform/vx_platform_wire.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::int64_t kConnectTimeUs = 20000000, kDiscoveryConnectTimeUs = 3000000;
constexpr std::int64_t kSendTimeUs = 10000000, kDataSendTimeUs = 60000000;

bool serviceStops() {
    return proxyStopFlag.load(std::memory_order_acquire) != 0;
}
bool instanceStops() {
    return serviceStops() || vxCurrent()->control.proxyStopRequested.load(std::memory_order_acquire) != 0;
}
bool linkStops() {
    return instanceStops() || vxCurrent()->control.closeCtrlConFlag.load(std::memory_order_acquire) != 0;
}
// Or a start waits in vain for the threads of the former run (stopNIO).
bool runStops() {
    const VXAutoSensorState_t& sensor = vxCurrent()->autoSensor;
    return linkStops() || (sensor.asStopFlag.load(std::memory_order_acquire) &&
                           sensor.breakFlag.load(std::memory_order_acquire));
}

constexpr std::size_t kAddressSize = 16;

struct Kind {
    const char* label;  // as in "Control Protcol:WS"
    const char* name;   // as in "data sending on data connection"
    VXLwsHandle& (*handle)(vxApplication& app);
    bool text, reads;
    std::int64_t connectTimeUs, sendTimeUs;
    bool (*stop)();
    bool atControlPeer;  // connects where the control connection does, without finding the host's address
};

VXLwsHandle& controlHandle(vxApplication& app) {
    return app.control.controlWsi;
}
VXLwsHandle& dataHandle(vxApplication& app) {
    return app.data.dataWsi;
}
VXLwsHandle& autoSensorHandle(vxApplication& app) {
    return app.autoSensor.asWsi;
}
VXLwsHandle& bulkDataHandle(vxApplication& app) {
    return app.lws.bulkDataWsi;
}
VXLwsHandle& logHandle(vxApplication& app) {
    return app.lws.logWsi;
}
VXLwsHandle& discoveryHandle(vxApplication& app) {
    return app.discovery.discoveryWsi;
}

// clang-format off
constexpr Kind kControl{"Control", "control", controlHandle, true, true, kConnectTimeUs, kSendTimeUs, instanceStops, false};
constexpr Kind kData{"Data", "data", dataHandle, false, false, kConnectTimeUs, kDataSendTimeUs, runStops, false};
constexpr Kind kAutoSensor{"AutoSensor", "auto sensor", autoSensorHandle, false, false, kConnectTimeUs, kDataSendTimeUs, runStops, false};
constexpr Kind kBulkData{"BulkData", "bulk data", bulkDataHandle, false, false, kConnectTimeUs, kDataSendTimeUs, linkStops, false};
constexpr Kind kLog{"Log", "log", logHandle, false, false, kConnectTimeUs, kDataSendTimeUs, linkStops, false};
constexpr Kind kDiscovery{"Discovery", "discovery", discoveryHandle, false, false, kDiscoveryConnectTimeUs, 0, serviceStops, true};
// clang-format on

VXLwsConnection* held(const VXLwsHandle& handle) {
    return handle.load(std::memory_order_acquire);
}

// The address of the collector that the control thread's connection has found. False without one that is
// being read.
bool controlPeer(VXOutbox_t& outbox, char (&address)[kAddressSize]) {
    const VXGuard lock(outbox.mutex);  // the connection stands as long as the outbox names it
    if (!outbox.lws) return false;
    vxlb_copy_text(address, sizeof(address), vxLwsPeer(*outbox.lws));
    return *address != '\0';
}

// The protocol in use. A collector that named none of the agent's is reached as before.
int protocolInUse(const vxApplication& app) {
    const std::int32_t active = app.control.ActiveAgentProtocolIndex.load(std::memory_order_relaxed);
    return active != 0 ? active : vxCollectorInUse().protocol;
}

bool create(const Kind& kind, const char* host, int port) {
    vxApplication& app = *vxCurrent();
    char address[kAddressSize];
    if (kind.atControlPeer && !controlPeer(app.control.outbox, address)) return false;
    VXLwsHandle& handle = kind.handle(app);
    vxLwsEndHandle(handle);
    VXLwsConnection* connection = vxLwsConnect({.label = kind.label,
                                                .host = host,
                                                .address = kind.atControlPeer ? address : nullptr,
                                                .port = port,
                                                .protocol = protocolInUse(app),
                                                .text = kind.text,
                                                .reads = kind.reads,
                                                .timeUs = kind.connectTimeUs,
                                                .stop = kind.stop});
    handle.store(connection, std::memory_order_release);
    return connection != nullptr;
}

int send(const Kind& kind, const char* data, std::int32_t length, std::int64_t us) {
    VXLwsConnection* connection = held(kind.handle(*vxCurrent()));
    if (!connection) {
        VX_TRACE(1, kControlThread, kError, "%s connection is closed", kind.name);
        return 1;
    }
    if (vxLwsSendAll(*connection, data, length, us, kind.stop)) return 0;
    VX_TRACE(1, kControlThread, kError, "error: failed to send data on %s connection", kind.name);
    return 1;
}

int send(const Kind& kind, const char* data, std::int32_t length) {
    return send(kind, data, length, kind.sendTimeUs);
}

}  // namespace

bool create_lws_control_connection(const char* host, int port) {
    return create(kControl, host, port);
}
bool create_lws_data_connection(const char* host, int port) {
    return create(kData, host, port);
}
bool create_lws_as_connection(const char* host, int port) {
    return create(kAutoSensor, host, port);
}
bool create_lws_bulk_data_connection(const char* host, int port) {
    return create(kBulkData, host, port);
}
bool create_lws_log_connection(const char* host, int port) {
    return create(kLog, host, port);
}
bool create_lws_discovery_connection(const char* host, int port) {
    return create(kDiscovery, host, port);
}

int send_control_data_via_lws_socket(const char* data, std::int32_t length) {
    return send(kControl, data, length);
}
int send_data_via_lws_socket(const char* data, std::int32_t length) {
    return send(kData, data, length);
}
int send_as_data_via_lws_socket(const char* data, std::int32_t length) {
    return send(kAutoSensor, data, length);
}
int send_bulk_data_via_lws_socket(const char* data, std::int32_t length) {
    return send(kBulkData, data, length);
}
int send_log_data_via_lws_socket(const char* data, std::int32_t length) {
    return send(kLog, data, length);
}
int send_discovery_data_via_lws_socket(const char* data, std::int32_t length, std::int64_t us) {
    return send(kDiscovery, data, length, us);
}

void vxLwsEndHandle(VXLwsHandle& handle) {
    vxLwsEnd(handle.exchange(nullptr, std::memory_order_acq_rel));
}

void clean_discovery_conn() {
    vxLwsEndHandle(vxCurrent()->discovery.discoveryWsi);
}

void clean_bulk_data_conn() {
    vxLwsEndHandle(vxCurrent()->lws.bulkDataWsi);
}

void vxLwsEndOf(const VXLwsConnection& connection, bool ours, char* ip, std::size_t ipSize, int* port) {
    vx_platform_connection_end(vxLwsDescriptor(connection), ours, ip, ipSize, port);
}

}  // namespace vx
