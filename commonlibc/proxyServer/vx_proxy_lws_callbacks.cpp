#include "commonlibc/proxyServer/vx_proxy_lws_callbacks.h"

#include <utility>

#include "commonlibc/VXAgentWs.h"
#include "commonlibc/proxyServer/vx_proxy_events.h"
#include "commonlibc/proxyServer/vx_proxy_listener.h"
#include "commonlibc/proxyServer/vx_proxy_lws_accept.h"
#include "commonlibc/proxyServer/vx_proxy_read.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::size_t kReceiveSize = 102400;
constexpr std::size_t kUserSize = sizeof(void*);  // a VXAgentWs*, null until it stands
constexpr auto kSlowPeer = static_cast<pending_timeout>(PENDING_TIMEOUT_USER_REASON_BASE);
constexpr auto kUnknownPeer = static_cast<pending_timeout>(PENDING_TIMEOUT_USER_REASON_BASE + 1);

VXAgentWs*& recordOf(void* user) {
    return *static_cast<VXAgentWs**>(user);
}

int onEstablished(lws* wsi, VXAgentWs*& record) {
    VX_TRACE(2, kControlThread, kInfo, "CLIENT->PROXY ============\nNEW CONNECTION -%d\n============='",
             static_cast<int>(LWS_CALLBACK_ESTABLISHED));
    record = vxMakeAgentWs(wsi);
    if (!record) return -1;
    lws_set_timeout(wsi, kUnknownPeer, kUnknownSeconds);
    return 0;
}

// A message of a connection that has not said who it is.
int registerWebSocket(VXAgentWs& record) {
    const int result = readMessageFromSocket(nullptr, VXProxy.controlBuf, &record.address, &record);
    if (result < 0 || record.closing) return -1;
    if (record.address) lws_set_timeout(record.wsi, NO_PENDING_TIMEOUT, 0);
    return 0;
}

int handOver(VXAgentWs& record, const char* in, std::size_t length) {
    record.in = in;
    record.inLength = length;
    const int result = record.address ? vxServeWebSocket(record) : registerWebSocket(record);
    record.in = nullptr;
    record.inLength = 0;
    return result;
}

// Of a connection of lines: they come in whole messages.
int takePart(VXAgentWs& record, const char* in, std::size_t length, bool last) {
    if (last && !record.parts) return handOver(record, in, length);
    if (!vxKeepAgentPart(record, in, length, static_cast<std::size_t>(kMaxMessage))) {
        VX_TRACE(1, kControlThread, kError,
                 "Message of an agent is longer than %d bytes, or too many are not complete. Closing the "
                 "connection.",
                 kMaxMessage);
        vxWebSocketGone(record);
        return -1;
    }
    if (!last) return 0;
    const int result = handOver(record, record.parts, record.partsLength);
    vxDropAgentParts(record);
    return result;
}

int onReceive(lws* wsi, VXAgentWs& record, const char* in, std::size_t length) {
    if (record.closing) return -1;
    lws_validity_confirmed(wsi);
    if (vxIsStream(record)) return handOver(record, in, length);
    const bool last = lws_is_final_fragment(wsi) && lws_remaining_packet_payload(wsi) == 0;
    const int result = takePart(record, in, length, last);
    // Who asks for file upon file is not asked what next before he has taken some.
    if (result == 0 && vxAgentWsLaden(record)) lws_rx_flow_control(wsi, 0);
    return result;
}

int onWriteable(lws* wsi, VXAgentWs& record) {
    VX_TRACE(4, kControlThread, kInfo, "writable");
    if (record.closing) return -1;
    if (!record.waiting) return 0;  // the library's turn, behind the answer to a ping: other times run on
    const int waits = vxWriteAgentWs(record);
    if (waits < 0) return -1;
    record.waiting = waits > 0;
    lws_set_timeout(wsi, waits ? kSlowPeer : NO_PENDING_TIMEOUT, waits ? kSlowSeconds : 0);
    if (waits) lws_callback_on_writable(wsi);
    if (!vxAgentWsLaden(record)) lws_rx_flow_control(wsi, 1);
    return 0;
}

// A stop ends all connections: nothing is closed by it but the connections themselves.
void leaveProcess(VXAgentWs& record) {
    processInfo_t* process = processAt(*instanceAt(record.address->appIndex), record.address->procIndex);
    const VXGuard lock(process->sendMutex);
    for (std::atomic<VXAgentWs*>* handle :
         {&process->controlWs, &process->dataWs, &process->asWs, &process->discoveryWs})
        if (handle->load(std::memory_order_relaxed) == &record) handle->store(nullptr);
}

int onClosed(VXAgentWs*& slot) {
    VXAgentWs* record = std::exchange(slot, nullptr);
    if (!record) return 0;
    if (record->address && vxListenerStopOrdered())
        leaveProcess(*record);
    else
        vxWebSocketGone(*record);
    VX_TRACE(3, kControlThread, kInfo, "Freeing epoll data");
    record->wsi = nullptr;
    vxFreeAgentWs(record);
    return 0;
}

void traceCall(lws_callback_reasons reason, const void* user, const void* in, std::size_t len) {
    const bool isText = reason == LWS_CALLBACK_RECEIVE && in;
    VX_TRACE(4, kControlThread, kInfo, "proxy callback reason:%d: user:%x size:%d in:%.*s ",
             static_cast<int>(reason), static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(user)),
             static_cast<int>(len), isText ? static_cast<int>(len) : 0,
             isText ? static_cast<const char*>(in) : "");
}

// Who asks for a page finds none.
int refuseRequest(lws* wsi) {
    lws_return_http_status(wsi, HTTP_STATUS_NOT_FOUND, nullptr);
    return -1;
}

}  // namespace

int callback_proxy_ws(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t len) {
    if (reason == LWS_CALLBACK_EVENT_WAIT_CANCELLED) {
        vxServeReadyWebSockets();
        return 0;
    }
    traceCall(reason, user, in, len);
    if (reason == LWS_CALLBACK_HTTP) return refuseRequest(wsi);
    if (!user) return 0;
    VXAgentWs*& record = recordOf(user);
    switch (reason) {
        case LWS_CALLBACK_ESTABLISHED:
            return onEstablished(wsi, record);
        case LWS_CALLBACK_RECEIVE:
            return record ? onReceive(wsi, *record, static_cast<const char*>(in), len) : -1;
        case LWS_CALLBACK_SERVER_WRITEABLE:
            return record ? onWriteable(wsi, *record) : 0;
        case LWS_CALLBACK_CLOSED:
            return onClosed(record);
        default:
            return 0;
    }
}

int callback_proxy_raw(lws* wsi, lws_callback_reasons reason, void* /*user*/, void* /*in*/,
                       std::size_t /*len*/) {
    VX_TRACE(4, kControlThread, kInfo, "proxy raw callback reason:%d", static_cast<int>(reason));
    if (reason == LWS_CALLBACK_ESTABLISHED) lws_set_timeout(wsi, kUnknownPeer, kUnknownSeconds);
    return 0;
}

const lws_protocols kAgentProtocols[] = {
    {"VX_ws", callback_proxy_ws, kUserSize, kReceiveSize, 0, nullptr, 0},
    {"raw_control", callback_proxy_raw, kUserSize, 0, 0, nullptr, 0},
    {"ws_control", callback_proxy_ws, kUserSize, kReceiveSize, 0, nullptr, 0},
    {kAcceptProtocol, callback_proxy_accept, 0, 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

void vxServeReadyWebSockets() {
    while (VXAgentWs* record = vxTakeReadyAgentWs()) {
        if (record->closing) continue;
        if (record->overfull.load(std::memory_order_relaxed)) {
            vxWebSocketGone(*record);
            vxCloseAgentWs(*record);
            continue;
        }
        if (!std::exchange(record->waiting, true)) lws_set_timeout(record->wsi, kSlowPeer, kSlowSeconds);
        lws_callback_on_writable(record->wsi);
    }
}

}  // namespace vx
