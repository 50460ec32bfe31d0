#include "commonlibc/proxyServer/vx_proxy_lws_accept.h"

#include <apr_errno.h>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/platform/vx_platform_wire.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr int kAtOnce = 64;  // connections of one turn: those that stand are served meanwhile
constexpr lws_usec_t kPauseUs = 1000000;

lws* listeningWsi = nullptr;
lws_sorted_usec_list_t pauseTimer;

void goOn(lws_sorted_usec_list_t* /*timer*/) {
    if (!listeningWsi) return;
    lws_rx_flow_control(listeningWsi, 1);
    lws_cancel_service(lws_get_context(listeningWsi));  // the poll that follows may have been made ready
}

void pauseAccepting(lws* wsi, int code) {
    char error[kSockErrorSize];
    VX_TRACE(1, kControlThread, kError, "Error in accepting connection : rv = %d , Error msg - '%s'", code,
             apr_strerror(code, error, sizeof(error)));
    lws_rx_flow_control(wsi, 0);
    lws_sul_schedule(lws_get_context(wsi), 0, &pauseTimer, goOn, kPauseUs);
}

void acceptWaiting(lws* wsi) {
    for (int i = 0; i < kAtOnce; ++i) {
        int code = 0;
        const int descriptor = vx_platform_accept(lws_get_socket_fd(wsi), &code);
        if (descriptor == -2) pauseAccepting(wsi, code);
        if (descriptor < 0) return;
        VX_TRACE(3, kControlThread, kInfo, "Connection received, descriptor %d", descriptor);
        if (!lws_adopt_socket_vhost(lws_get_vhost(wsi), descriptor)) ++VXProxy.socketsRefused;
    }
}

}  // namespace

bool vxLwsListen(lws_vhost* vhost, int listening) {
    lws_sock_file_fd_type descriptor{};
    descriptor.filefd = vx_platform_copy_descriptor(listening);
    if (descriptor.filefd < 0) return false;
    listeningWsi =
        lws_adopt_descriptor_vhost(vhost, LWS_ADOPT_RAW_FILE_DESC, descriptor, kAcceptProtocol, nullptr);
    if (!listeningWsi) vx_platform_close_descriptor(descriptor.filefd);
    return listeningWsi != nullptr;
}

int callback_proxy_accept(lws* wsi, lws_callback_reasons reason, void* /*user*/, void* /*in*/,
                          std::size_t /*len*/) {
    switch (reason) {
        case LWS_CALLBACK_RAW_RX_FILE:
            acceptWaiting(wsi);
            return 0;
        case LWS_CALLBACK_RAW_CLOSE_FILE:
            lws_sul_cancel(&pauseTimer);
            listeningWsi = nullptr;
            return 0;
        case LWS_CALLBACK_ESTABLISHED:
            return -1;
        default:
            return 0;
    }
}

}  // namespace vx
