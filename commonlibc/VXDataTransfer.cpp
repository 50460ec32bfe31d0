#include "commonlibc/VXDataTransfer.h"

#include <apr_errno.h>

#include <algorithm>
#include <cstring>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/lws_connection.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int64_t kSettleStepUs = 5000;

std::int32_t unsent(const VXBufferNode& node) {
    return node.use_len - node.offset;
}

VXBufferNode* headOf(const VXBufferChain& chain) {
    return chain.VXCollectorBB.load(std::memory_order_acquire);
}

VXBufferNode* behind(VXBufferChain& chain, const VXBufferNode& node) {
    const VXGuard lock(chain.listMutex);
    return node.next;
}

// Bytes handed over that the other host has not acknowledged; 0 where nobody knows.
std::int64_t unacknowledged(const VXCarrier& carrier) {
    if (carrier.lws) return vxLwsUnacknowledged(*carrier.lws);
    return std::max<std::int64_t>(vx_platform_unacknowledged(vxlb_socket_fd(carrier.socket)), 0);
}

bool failed(const VXCarrier& carrier) {
    if (carrier.lws) return !vxLwsStands(*carrier.lws);
    return vx_platform_connection_failed(vxlb_socket_fd(carrier.socket));
}

// Bytes of the head of the read list, and of those behind it, that have arrived.
std::int64_t arrivedOf(const VXBufferChain& chain, std::int64_t missing) {
    return chain.heldBytes - std::min(missing, chain.heldBytes);
}

// Gives back every node of which nothing is missing. What has arrived of the node that is then the head.
std::int64_t release(VXBufferChain& chain, std::int64_t missing) {
    std::int64_t arrived = arrivedOf(chain, missing);
    for (VXBufferNode* head = headOf(chain); head; head = headOf(chain)) {
        const std::int64_t part = head->offset - head->sentFrom;
        if (unsent(*head) > 0 || part > arrived) break;
        arrived -= part;
        chain.heldBytes -= part;
        vxGiveBackHead(chain);
    }
    return arrived;
}

// Moves the start of a node behind the end of the record that lies in front.
void passOver(VXBufferChain& chain, VXBufferNode& node) {
    const auto length = static_cast<std::size_t>(unsent(node));
    const void* end = length ? std::memchr(node.buffer + node.offset, '\n', length) : nullptr;
    node.offset = node.sentFrom =
        end ? static_cast<std::int32_t>(static_cast<const char*>(end) - node.buffer) + 1 : node.use_len;
    if (!end) return;
    chain.passOver = 0;
    chain.recordsDropped.fetch_add(1, std::memory_order_relaxed);
}

// Where the record begins that holds the byte at `position`; -1: in a node that was given back.
std::int32_t recordStart(const VXBufferChain& chain, const VXBufferNode& node, std::int64_t position) {
    for (auto at = static_cast<std::int32_t>(position); at > node.sentFrom; --at)
        if (node.buffer[at - 1] == '\n') return at;
    return node.sentFrom > 0 || !chain.headIsTorn ? node.sentFrom : -1;
}

// One send of what is left of a node. kSendDone when bytes were taken.
int sendOverLws(VXBufferChain& chain, const VXCarrier& carrier, VXBufferNode& node) {
    const std::int64_t count =
        vxLwsSend(*carrier.lws, node.buffer + node.offset, unsent(node), carrier.sendTimeUs);
    if (count < 0) {
        VX_TRACE(1, kControlThread, kError, "error: failed to send data on data connection, dataLen = %d",
                 unsent(node));
        return kSendLost;
    }
    node.offset += static_cast<std::int32_t>(count);
    chain.heldBytes += count;
    return count == 0 ? kSendNoBytes : kSendDone;
}

int sendOverSocket(VXBufferChain& chain, apr_socket_t* socket, VXBufferNode& node) {
    auto count = static_cast<apr_size_t>(unsent(node));
    const apr_status_t status = apr_socket_send(socket, node.buffer + node.offset, &count);
    if (status != APR_SUCCESS && vx_platform_connection_lost(status)) {
        char error[kSockErrorSize];
        VX_TRACE(1, kControlThread, kError, "Error = %s, dataLen = %d",
                 apr_strerror(status, error, sizeof(error)), unsent(node));
        return kSendLost;
    }
    node.offset += static_cast<std::int32_t>(count);
    chain.heldBytes += static_cast<std::int64_t>(count);
    return count == 0 ? kSendNoBytes : kSendDone;
}

int sendSome(VXBufferChain& chain, const VXCarrier& carrier, VXBufferNode& node) {
    return carrier.lws ? sendOverLws(chain, carrier, node) : sendOverSocket(chain, carrier.socket, node);
}

// The end of a connection is seen without a send. Over libwebsockets it takes a turn to see it, and to answer
// the other side's pings.
bool foundGone(const VXBufferChain& chain, const VXCarrier& carrier) {
    if (carrier.lws) vxLwsTurn(*carrier.lws, 1);
    return (chain.heldBytes > 0 || carrier.lws) && failed(carrier);
}

std::int64_t settleLws(VXLwsConnection& connection, std::int64_t untilUs) {
    while (vxLwsStands(connection) && vxLwsUnacknowledged(connection) > 0 && vxlb_steady_us() < untilUs)
        vxLwsTurn(connection, kSettleStepUs);
    const std::int64_t missing = vxLwsUnacknowledged(connection);
    const bool serviceStops = proxyStopFlag.load(std::memory_order_acquire) != 0;
    if (missing > 0 && !serviceStops) vx_platform_reset_on_close(vxLwsDescriptor(connection));
    return missing;
}

}  // namespace

int vxSendChain(VXBufferChain& chain, const VXCarrier& carrier, int (*stop)()) {
    if (!carrier || foundGone(chain, carrier)) return kSendLost;
    vxReleaseArrived(chain, carrier);
    while (VXBufferNode* node = vxNodeToSend(chain)) {
        while (unsent(*node) > 0) {
            if (const int result = sendSome(chain, carrier, *node)) return result;
            if (stop && stop()) return kThreadEnds;
        }
        vxReleaseArrived(chain, carrier);
    }
    return kSendDone;
}

VXBufferNode* vxNodeToSend(VXBufferChain& chain) {
    VXBufferNode* node = headOf(chain);
    while (node) {
        if (chain.passOver) passOver(chain, *node);
        if (unsent(*node) > 0) return node;
        node = behind(chain, *node);
    }
    return nullptr;
}

void vxGiveBackHead(VXBufferChain& chain) {
    VXBufferNode& head = *headOf(chain);
    if (head.use_len > 0) chain.headIsTorn = head.buffer[head.use_len - 1] != '\n';
    head.use_len = head.offset = head.sentFrom = 0;
    moveToWriteList(chain);
}

void vxReleaseArrived(VXBufferChain& chain, const VXCarrier& carrier) {
    if (headOf(chain)) release(chain, unacknowledged(carrier));
}

std::int64_t vxSettle(const VXCarrier& carrier, std::int64_t untilUs) {
    if (carrier.lws) return settleLws(*carrier.lws, untilUs);
    apr_socket_t* socket = carrier.socket;
    // The other host acknowledges an end at once.
    if (failed(socket) || apr_socket_shutdown(socket, APR_SHUTDOWN_WRITE) != APR_SUCCESS)
        return unacknowledged(socket);
    while (unacknowledged(socket) > 0 && !failed(socket) && vxlb_steady_us() < untilUs)
        vxlb_sleep_us(kSettleStepUs);
    const std::int64_t missing = unacknowledged(socket);
    const bool serviceStops = proxyStopFlag.load(std::memory_order_acquire) != 0;  // the system goes on
    if (missing > 0 && !serviceStops) vx_platform_reset_on_close(vxlb_socket_fd(socket));
    return std::max<std::int64_t>(missing - 1, 0);  // the end itself counts as a byte
}

void vxConnectionGone(VXBufferChain& chain, std::int64_t missing) {
    const std::int64_t arrived = release(chain, missing);
    VXBufferNode* head = headOf(chain);
    std::int32_t start = head ? recordStart(chain, *head, head->sentFrom + arrived) : 0;
    if (head ? start < 0 : chain.headIsTorn != 0) chain.passOver = 1;
    for (VXBufferNode* node = head; node; node = behind(chain, *node)) {
        node->offset = node->sentFrom = std::max(start, 0);
        start = 0;
    }
    chain.heldBytes = 0;
}

}  // namespace vx
