#include "commonlibc/lws_account.h"

#include <algorithm>

#include "commonlibc/platform/vx_platform_wire.h"

namespace vx {

namespace {

int descriptorOf(const VXLwsConnection& connection) {
    return connection.wsi ? lws_get_socket_fd(connection.wsi) : -1;
}

VXLwsMark* newestMark(VXLwsConnection& connection) {
    if (connection.markCount == 0) return nullptr;
    return &connection.marks[(connection.firstMark + connection.markCount - 1) % kLwsMarks];
}

}  // namespace

void vxLwsNoteWire(VXLwsConnection& connection) {
    VXWireBytes wire{};
    connection.wireKnown = vx_platform_wire_bytes(descriptorOf(connection), &wire);
    if (!connection.wireKnown) return;
    const VXLwsMark mark{connection.taken - connection.to_send, wire.taken};
    if (mark.payload == 0) connection.wireStart = mark.wire;
    VXLwsMark* newest = newestMark(connection);
    if (newest && newest->payload == mark.payload) return;  // what came since is none of ours
    if (connection.markCount < kLwsMarks) {
        ++connection.markCount;
        newest = newestMark(connection);
    }
    *newest = mark;
}

void vxLwsNoteArrived(VXLwsConnection& connection) {
    const std::int64_t handedOver = connection.taken - connection.to_send;
    if (!connection.wireKnown) {
        connection.arrived = handedOver;
        return;
    }
    VXWireBytes wire{};
    if (vx_platform_wire_bytes(descriptorOf(connection), &wire)) connection.acknowledged = wire.acknowledged;
    if (!connection.framed) {
        const std::int64_t part = std::min(handedOver, connection.acknowledged - connection.wireStart);
        connection.arrived = std::max(connection.arrived, part);
        return;
    }
    while (connection.markCount > 0 &&
           connection.marks[connection.firstMark].wire <= connection.acknowledged) {
        connection.arrived = connection.marks[connection.firstMark].payload;
        connection.firstMark = (connection.firstMark + 1) % kLwsMarks;
        --connection.markCount;
    }
}

}  // namespace vx
