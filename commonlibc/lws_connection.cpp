#include "commonlibc/lws_connection.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/lws_account.h"
#include "commonlibc/lws_callbacks.h"
#include "commonlibc/lws_connection_state.h"
#include "commonlibc/lws_context.h"
#include "commonlibc/lws_url.h"
#include "commonlibc/platform/vx_platform_wire.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

// Waits are for the system's poll, so they go by its clock.
using WaitClock = std::chrono::steady_clock;
constexpr std::int64_t kStepUs = 1000000;   // a stop is seen within a second
constexpr unsigned kServiceBuffer = 16384;  // also holds the request of a WebSocket
constexpr int kTlsUnchecked = LCCSCF_USE_SSL | LCCSCF_ALLOW_SELFSIGNED | LCCSCF_ALLOW_EXPIRED |
                              LCCSCF_SKIP_SERVER_CERT_HOSTNAME_CHECK | LCCSCF_ALLOW_INSECURE;
// A WebSocket on which nothing came for so long is asked for a sign of life, and given up without one.
constexpr lws_retry_bo_t kIdlePolicy = {nullptr, 0, 0, 300, 600, 0};

// What is left of a time that began with the object.
class Left {
public:
    explicit Left(std::int64_t us) : end_(WaitClock::now() + std::chrono::microseconds(us)) {}
    std::int64_t us() const {
        const auto left = end_ - WaitClock::now();
        return std::max<std::int64_t>(std::chrono::duration_cast<std::chrono::microseconds>(left).count(), 0);
    }

private:
    WaitClock::time_point end_;
};

// The library may call this before it waits, if the time is over by then, and would wait on.
void onTime(lws_sorted_usec_list_t* timer) {
    lws_cancel_service(lws_container_of(timer, VXLwsConnection, timer)->context);
}

bool checksTls() {
    return vxCurrent()->VXBCISetting.tlsVerify.load(std::memory_order_relaxed) != 0;
}

// The creation block of a connection's context.
lws_context_creation_info creationInfo(VXLwsConnection& connection, int protocol) {
    lws_context_creation_info info{};
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = kLwsProtocols;
    info.pt_serv_buf_size = kServiceBuffer;
    info.user = &connection;
    info.vhost_name = "collector";
    info.http_proxy_address = ":0";  // none, whatever the variable http_proxy of the host says
    if (protocol != kProtocolWSS) return info;
    info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
    info.client_ssl_cipher_list = "DEFAULT:@SECLEVEL=1";
    const char* caFile = vxCurrent()->VXBCISetting.tlsCaFile.getOr("");
    if (!checksTls()) {
        info.options |= LWS_SERVER_OPTION_DISABLE_OS_CA_CERTS | LWS_SERVER_OPTION_PEER_CERT_NOT_REQUIRED;
    } else if (*caFile) {
        info.options |= LWS_SERVER_OPTION_DISABLE_OS_CA_CERTS;
        info.client_ssl_ca_filepath = caFile;
    }
    return info;
}

void startConnect(VXLwsConnection& connection, const VXLwsTarget& target, const char* path) {
    lws_client_connect_info info{};
    info.context = connection.context;
    info.vhost = connection.vhost;
    info.host = info.origin = target.host;
    info.address = target.address ? target.address : target.host;
    info.port = target.port;
    info.path = path;
    info.pwsi = &connection.wsi;
    info.alpn = "http/1.1";
    if (target.protocol == kProtocolTCP) {
        VX_TRACE(1, kControlThread, kInfo, "%s Protcol:TCP", target.label);
        info.method = "RAW";
        info.local_protocol_name = kLwsRawProtocol;
    } else {
        VX_TRACE(1, kControlThread, kInfo, "%s Protcol:%s", target.label,
                 target.protocol == kProtocolWS ? "WS" : "WSS");
        info.local_protocol_name = kLwsWsProtocol;
        info.retry_and_idle_policy = &kIdlePolicy;
    }
    info.ssl_connection = LCCSCF_HTTP_NO_FOLLOW_REDIRECT;
    if (target.protocol == kProtocolWSS) info.ssl_connection |= checksTls() ? LCCSCF_USE_SSL : kTlsUnchecked;
    if (!lws_client_connect_via_info(&info)) connection.phase = VXLwsPhase::kGone;
}

// Turns until the connection stands, has failed, or is given up.
void waitForConnect(VXLwsConnection& connection, const VXLwsTarget& target) {
    const Left left(target.timeUs);
    while (connection.phase == VXLwsPhase::kConnecting && left.us() > 0 && !(target.stop && target.stop()))
        vxLwsTurn(connection, std::min(left.us(), kStepUs));
}

VXLwsConnection* makeConnection(const VXLwsTarget& target) {
    auto* connection =
        static_cast<VXLwsConnection*>(VXLB_MALLOC_AND_MEMSET(sizeof(VXLwsConnection), "lws connection", -1));
    if (!connection) return nullptr;
    connection->label = target.label;
    connection->framed = target.protocol != kProtocolTCP;
    connection->text = target.text;
    connection->block =
        static_cast<unsigned char*>(VXLB_MALLOC(LWS_PRE + kLwsBlockSize, "lws send block", -1));
    if (target.reads)
        connection->received = static_cast<char*>(VXLB_MALLOC(kLwsReceiveSize, "lws receive buffer", -1));
    const bool whole = connection->block && (connection->received || !target.reads);
    if (whole)
        connection->context =
            vxMakeLwsContext(creationInfo(*connection, target.protocol), &connection->vhost);
    if (connection->context) return connection;
    VX_TRACE(1, kControlThread, kError, "%s conntext creation error", target.label);
    vxLwsEnd(connection);
    return nullptr;
}

// A text message is not cut within a character.
std::int64_t cutForText(const char* data, std::int64_t length) {
    constexpr std::int64_t kLongest = 3;
    for (std::int64_t cut = length; cut > length - kLongest && cut > 1; --cut)
        if ((static_cast<unsigned char>(data[cut]) & 0xC0) != 0x80) return cut;
    return length;
}

}  // namespace

VXLwsConnection* vxLwsConnect(const VXLwsTarget& target) {
    if (target.protocol < kProtocolTCP || target.protocol > kProtocolWSS || !*target.host ||
        target.port < 1) {
        VX_TRACE(1, kControlThread, kError, "%s client connection failed: '%s:%d', protocol %d", target.label,
                 target.host, target.port, target.protocol);
        return nullptr;
    }
    VXLwsConnection* connection = makeConnection(target);
    if (!connection) return nullptr;
    char* path = target.protocol == kProtocolTCP ? nullptr : setWebsocketUrl();
    startConnect(*connection, target, path ? path : "/");
    VXLB_FREE(path, "websocket url", -1);
    waitForConnect(*connection, target);
    if (vxLwsStands(*connection)) {
        int peerPort = 0;
        vx_platform_connection_end(vxLwsDescriptor(*connection), false, connection->peer,
                                   sizeof(connection->peer), &peerPort);
        return connection;
    }
    VX_TRACE(1, kControlThread, kError, "%s client connection failed", target.label);
    vxLwsEnd(connection);
    return nullptr;
}

void vxLwsEnd(VXLwsConnection* connection) {
    if (!connection) return;
    if (connection->wsi) lws_set_timeout(connection->wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_SYNC);
    vxEndLwsContext(connection->context);
    VXLB_FREE(connection->received, "lws receive buffer", -1);
    VXLB_FREE(connection->block, "lws send block", -1);
    VXLB_FREE(connection, "lws connection", -1);
}

bool vxLwsStands(const VXLwsConnection& connection) {
    return connection.phase == VXLwsPhase::kStanding;
}

void vxLwsTurn(VXLwsConnection& connection, std::int64_t us) {
    // The library takes no time to wait from its caller: it goes by its timers. Below 0 it does not wait.
    if (us > 0) lws_sul_schedule(connection.context, 0, &connection.timer, onTime, us);
    if (lws_service(connection.context, us > 0 ? 0 : -1) < 0) connection.phase = VXLwsPhase::kGone;
    lws_sul_cancel(&connection.timer);
}

void vxLwsWake(VXLwsConnection& connection) {
    lws_cancel_service(connection.context);
}

std::int64_t vxLwsOffer(VXLwsConnection& connection, const char* data, std::int64_t length) {
    if (!vxLwsStands(connection)) return -1;
    if (connection.to_send > 0) return 0;
    if (length > kLwsBlockSize) {
        length = kLwsBlockSize;
        if (connection.text) length = cutForText(data, length);
    }
    if (length < 1) return 0;
    std::memcpy(connection.block + LWS_PRE, data, static_cast<std::size_t>(length));
    connection.to_send = static_cast<std::int32_t>(length);
    connection.taken += length;
    lws_callback_on_writable(connection.wsi);
    return length;
}

std::int64_t vxLwsSend(VXLwsConnection& connection, const char* data, std::int64_t length, std::int64_t us) {
    const Left left(us);
    std::int64_t taken = vxLwsOffer(connection, data, length);
    while (taken == 0 && length > 0 && left.us() > 0) {
        vxLwsTurn(connection, left.us());
        taken = vxLwsOffer(connection, data, length);
    }
    if (taken > 0) vxLwsTurn(connection, 0);
    return taken;
}

bool vxLwsSendAll(VXLwsConnection& connection, const char* data, std::int64_t length, std::int64_t us,
                  bool (*stop)()) {
    const Left left(us);
    while (length > 0 || !vxLwsFlushed(connection)) {
        const std::int64_t taken = length > 0 ? vxLwsOffer(connection, data, length) : 0;
        if (taken < 0 || !vxLwsStands(connection)) return false;
        data += taken;
        length -= taken;
        if (taken > 0) continue;
        if (left.us() == 0 || (stop && stop())) return false;
        vxLwsTurn(connection, std::min(left.us(), kStepUs));
    }
    return vxLwsStands(connection);
}

bool vxLwsFlushed(const VXLwsConnection& connection) {
    return connection.to_send == 0 && (!connection.wsi || !lws_partial_buffered(connection.wsi));
}

std::int64_t vxLwsUnacknowledged(VXLwsConnection& connection) {
    vxLwsNoteArrived(connection);
    return connection.taken - connection.arrived;
}

bool vxLwsReadable(const VXLwsConnection& connection) {
    return connection.receivedTo > connection.receivedFrom || !vxLwsStands(connection);
}

std::int64_t vxLwsRead(VXLwsConnection& connection, char* out, std::int64_t size, std::int64_t us) {
    const Left left(us);
    while (!vxLwsReadable(connection)) {
        vxLwsTurn(connection, left.us());
        if (left.us() == 0) break;
    }
    const std::int64_t held = connection.receivedTo - connection.receivedFrom;
    if (held == 0) return vxLwsStands(connection) ? 0 : -1;
    const std::int64_t count = std::min(held, size);
    std::memcpy(out, connection.received + connection.receivedFrom, static_cast<std::size_t>(count));
    connection.receivedFrom += static_cast<std::int32_t>(count);
    if (connection.receiveHeld && count == held) {
        connection.receivedFrom = connection.receivedTo = 0;
        connection.receiveHeld = false;
        if (connection.wsi) lws_rx_flow_control(connection.wsi, 1);
    }
    return count;
}

const char* vxLwsPeer(const VXLwsConnection& connection) {
    return connection.peer;
}

int vxLwsDescriptor(const VXLwsConnection& connection) {
    return connection.wsi ? lws_get_socket_fd(connection.wsi) : -1;
}

}  // namespace vx
