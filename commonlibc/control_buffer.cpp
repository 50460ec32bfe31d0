#include "commonlibc/control_buffer.h"

#include <apr_errno.h>
#include <apr_poll.h>

#include <algorithm>
#include <cstring>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/lws_connection.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

void consume(ctrlBufInfo_t* info, std::int32_t count) {
    info->readOffset += count;
    info->readBytes -= count;
}

void emptyBuffer(ctrlBufInfo_t* info) {
    info->readOffset = 0;
    info->writeOffset = 0;
    info->readBytes = 0;
    *info->read_socket_buf = '\0';
}

char* findNewline(ctrlBufInfo_t* info) {
    return static_cast<char*>(
        std::memchr(unreadBytes(info), '\n', static_cast<std::size_t>(info->readBytes)));
}

// The rest of a line that was too long. False while its end has not come.
bool skipLongLine(ctrlBufInfo_t* info) {
    if (!info->skipToNewline) return true;
    char* newline = findNewline(info);
    if (!newline) return false;
    consume(info, static_cast<std::int32_t>(newline - unreadBytes(info)) + 1);
    info->skipToNewline = 0;
    return true;
}

void skipZeroBytes(ctrlBufInfo_t* info) {
    while (info->readBytes > 0 && *unreadBytes(info) == '\0') consume(info, 1);
}

int readOverLws(VXLwsConnection& connection, char* out, std::int64_t length, std::int64_t us, char* error) {
    const std::int64_t count = vxLwsRead(connection, out, length, us);
    if (count >= 0) {
        out[count] = '\0';
        return static_cast<int>(count);
    }
    vxlb_copy_text(error, kSockErrorSize, "the connection was closed");
    return kSockClosed;
}

}  // namespace

char* takeControlLine(ctrlBufInfo_t* info) {
    if (!info->read_socket_buf || info->readBytes < 1) return nullptr;
    if (!skipLongLine(info)) {
        emptyBuffer(info);
        return nullptr;
    }
    skipZeroBytes(info);
    char* newline = findNewline(info);
    if (!newline) return nullptr;
    char* line = unreadBytes(info);
    *newline = '\0';
    consume(info, static_cast<std::int32_t>(newline - line) + 1);
    return line;
}

std::int64_t takeControlBytes(ctrlBufInfo_t* info, char* out, std::int64_t length) {
    const auto count = static_cast<std::int32_t>(std::min<std::int64_t>(length, info->readBytes));
    if (count < 1) return 0;
    std::memcpy(out, unreadBytes(info), static_cast<std::size_t>(count));
    consume(info, count);
    return count;
}

void makeControlRoom(ctrlBufInfo_t* info) {
    if (!info->read_socket_buf) return;
    if (info->readBytes < 1) {
        emptyBuffer(info);
        return;
    }
    if (info->readOffset > 0)
        std::memmove(info->read_socket_buf, unreadBytes(info), static_cast<std::size_t>(info->readBytes));
    info->readOffset = 0;
    info->writeOffset = info->readBytes;
    info->read_socket_buf[info->writeOffset] = '\0';
    if (info->readBytes < kControlBufSize) return;
    VX_TRACE(1, kControlThread, kError, "localctrlBufInfo->readBytes = %d,localctrlBufInfo->readOffset = %d",
             info->readBytes, info->readOffset);
    emptyBuffer(info);
    info->skipToNewline = 1;
}

int fillControlBuffer(ctrlBufInfo_t* info, std::int64_t us, char* error) {
    const int count = readPastControlBuffer(info->read_socket_buf + info->writeOffset,
                                            kControlBufSize - info->writeOffset, us, error);
    if (count <= 0) return count;
    info->readBytes += count;
    info->writeOffset += count;
    return count;
}

int readPastControlBuffer(char* out, std::int64_t length, std::int64_t us, char* error) {
    const VXControlState_t& control = vxCurrent()->control;
    if (VXLwsConnection* connection = control.controlWsi.load(std::memory_order_acquire))
        return readOverLws(*connection, out, length, us, error);
    apr_socket_t* socket = control.controlSocket.get();
    if (!socket) return kSockClosed;
    apr_pollfd_t descriptor{};
    descriptor.desc_type = APR_POLL_SOCKET;
    descriptor.reqevents = APR_POLLIN;
    descriptor.desc.s = socket;
    apr_int32_t signalled = 0;
    const apr_status_t status = apr_poll(&descriptor, 1, &signalled, us);
    if (APR_STATUS_IS_TIMEUP(status) || APR_STATUS_IS_EINTR(status)) return 0;
    if (status != APR_SUCCESS) return kSockFailed;
    const auto size = static_cast<int>(std::min<std::int64_t>(length, kControlBufSize));
    return vxlb_read_bytes(socket, out, size + 1, error);
}

}  // namespace vx
