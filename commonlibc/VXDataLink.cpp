#include "commonlibc/VXDataLink.h"

#include <apr_errno.h>
#include <apr_network_io.h>

#include "commonlibc/VXDataTransfer.h"
#include "commonlibc/lws_handler.h"
#include "commonlibc/vxlb_sock.h"

namespace vx {

namespace {

constexpr std::int64_t kConnectTimeUs = 10000000;

void destroyPool(apr_pool_t*& pool) {
    if (pool) apr_pool_destroy(pool);
    pool = nullptr;
}

}  // namespace

bool vxOpenLink(VXDataLink link, const VXCollectorRecord& collector, std::int64_t sendTimeUs, char* error) {
    if (!collector.host[0] || collector.port < 1) return false;
    destroyPool(link.pool);
    if (apr_pool_create(&link.pool, link.parent) != APR_SUCCESS) return false;
    apr_socket_t* socket =
        vxlb_create_client_con(collector.host, collector.port, link.pool, kConnectTimeUs, error);
    if (!socket) {
        destroyPool(link.pool);
        return false;
    }
    apr_socket_timeout_set(socket, sendTimeUs);
    vxlb_shared_put(link.socket, socket);
    return true;
}

bool vxSendAll(apr_socket_t* socket, const char* data, std::int64_t length, bool (*stop)()) {
    while (socket && length > 0) {
        auto count = static_cast<apr_size_t>(length);
        const apr_status_t status = apr_socket_send(socket, data, &count);
        const bool mayGoOn = status == APR_SUCCESS || APR_STATUS_IS_TIMEUP(status) ||
                             APR_STATUS_IS_EAGAIN(status) || APR_STATUS_IS_EINTR(status);
        if (!mayGoOn) return false;
        data += count;
        length -= static_cast<std::int64_t>(count);
        if (length > 0 && stop && stop()) return false;
    }
    return socket != nullptr;
}

void vxCloseLink(VXDataLink link, VXBufferChain& chain, std::int64_t untilUs) {
    const VXCarrier carrier(link.socket.get(), link.wsi.load(std::memory_order_acquire));
    vxConnectionGone(chain, carrier ? vxSettle(carrier, untilUs) : 0);
    vxlb_shared_close(link.socket);
    vxLwsEndHandle(link.wsi);
    destroyPool(link.pool);
}

}  // namespace vx
