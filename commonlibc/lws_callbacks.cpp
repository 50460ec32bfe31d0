#include "commonlibc/lws_callbacks.h"

#include <cstring>

#include "commonlibc/lws_account.h"
#include "commonlibc/lws_connection_state.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utf8.h"

namespace vx {

namespace {

// Below this much room the other side is not read: a turn hands over no more than that at once.
constexpr std::int32_t kReceiveReserve = kLwsReceiveSize / 2;
constexpr std::size_t kWsReceiveSize = 0x20000;

VXLwsConnection& connectionOf(lws* wsi) {
    return *static_cast<VXLwsConnection*>(lws_context_user(lws_get_context(wsi)));
}

lws_write_protocol modeOf(const VXLwsConnection& connection) {
    if (!connection.framed) return LWS_WRITE_HTTP;
    const char* from = reinterpret_cast<const char*>(connection.block + LWS_PRE);
    const bool text = connection.text && vxlb_is_utf8(from, static_cast<std::size_t>(connection.to_send));
    return text ? LWS_WRITE_TEXT : LWS_WRITE_BINARY;  // a peer may close on text that is no UTF-8
}

// The library calls only when what it had has gone to the system.
int onWriteable(VXLwsConnection& connection, lws* wsi) {
    vxLwsNoteWire(connection);
    if (connection.to_send == 0) return 0;
    const auto length = static_cast<std::size_t>(connection.to_send);
    const int written = lws_write(wsi, connection.block + LWS_PRE, length, modeOf(connection));
    if (written < 0) {
        VX_TRACE(1, kControlThread, kError, "%s: data sending failed", connection.label);
        return -1;
    }
    connection.to_send = 0;
    if (lws_partial_buffered(wsi)) {
        lws_callback_on_writable(wsi);
    } else {
        vxLwsNoteWire(connection);
    }
    return 0;
}

int onReceive(VXLwsConnection& connection, lws* wsi, const void* in, std::size_t length) {
    if (connection.framed) lws_validity_confirmed(wsi);
    if (!connection.received) return 0;
    if (connection.receivedFrom == connection.receivedTo) connection.receivedFrom = connection.receivedTo = 0;
    const auto room = static_cast<std::size_t>(kLwsReceiveSize - connection.receivedTo);
    if (length > room) {  // more at once than was agreed: a part would be no stream any more
        VX_TRACE(1, kControlThread, kError, "wrong data received on %s connection. Size %d", connection.label,
                 static_cast<int>(length));
        return -1;
    }
    std::memcpy(connection.received + connection.receivedTo, in, length);
    connection.receivedTo += static_cast<std::int32_t>(length);
    if (!connection.receiveHeld && kLwsReceiveSize - connection.receivedTo < kReceiveReserve) {
        connection.receiveHeld = true;
        lws_rx_flow_control(wsi, 0);
    }
    return 0;
}

int onEstablished(VXLwsConnection& connection, lws* wsi) {
    connection.phase = VXLwsPhase::kStanding;
    connection.wsi = wsi;
    vxLwsNoteWire(connection);
    return 0;
}

int onConnectionError(VXLwsConnection& connection, const void* in, std::size_t length) {
    connection.phase = VXLwsPhase::kGone;
    VX_TRACE(1, kControlThread, kError, "%s:LWS_CALLBACK_CLIENT_CONNECTION_ERROR %.*s", connection.label,
             in ? static_cast<int>(length) : 0, in ? static_cast<const char*>(in) : "");
    return 0;
}

int onClosed(VXLwsConnection& connection) {
    if (connection.phase == VXLwsPhase::kGone) return 0;
    vxLwsNoteArrived(connection);  // the descriptor is closed behind this
    connection.phase = VXLwsPhase::kGone;
    VX_TRACE(1, kControlThread, kInfo, "%s:LWS_CALLBACK_CLIENT_CLOSED recieved and returning -1",
             connection.label);
    return 0;
}

int onDestroy(VXLwsConnection& connection, const lws* wsi) {
    if (connection.wsi == wsi) connection.wsi = nullptr;
    if (!connection.wsi) connection.phase = VXLwsPhase::kGone;
    return 0;
}

int callback(lws* wsi, lws_callback_reasons reason, void* /*user*/, void* in, std::size_t length) {
    switch (reason) {
        case LWS_CALLBACK_CLIENT_ESTABLISHED:
        case LWS_CALLBACK_RAW_CONNECTED:
            return onEstablished(connectionOf(wsi), wsi);
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
            return onConnectionError(connectionOf(wsi), in, length);
        case LWS_CALLBACK_CLIENT_WRITEABLE:
        case LWS_CALLBACK_RAW_WRITEABLE:
            return onWriteable(connectionOf(wsi), wsi);
        case LWS_CALLBACK_CLIENT_RECEIVE:
        case LWS_CALLBACK_RAW_RX:
            return onReceive(connectionOf(wsi), wsi, in, length);
        case LWS_CALLBACK_CLIENT_CLOSED:
        case LWS_CALLBACK_RAW_CLOSE:
            return onClosed(connectionOf(wsi));
        case LWS_CALLBACK_WSI_DESTROY:
            return onDestroy(connectionOf(wsi), wsi);
        default:
            return 0;
    }
}

}  // namespace

const lws_protocols kLwsProtocols[] = {
    {kLwsRawProtocol, callback, 0, 0, 0, nullptr, 0},
    {kLwsWsProtocol, callback, 0, kWsReceiveSize, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

}  // namespace vx
