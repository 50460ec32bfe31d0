#include "commonlibc/control_lines.h"

#include <cstring>

#include "commonlibc/Server.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/control_reply.h"
#include "commonlibc/vxlb_trace.h"

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

// What is left over is no whole line: it waits at the buffer's start.
void keepPartialLine(ctrlBufInfo_t* info) {
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

// 0, or the verdict on a late reply that was refused.
int handleLine(vxApplication& app, char* line) {
    if (!app.Server.replyReceived && isConnectReply(line)) {
        app.control.lateVerdict = handleConnectReply(line);
        if (app.control.lateVerdict != kReplyGoOn) return app.control.lateVerdict;
    }
    handleReceivedClientMessageFromVXCollector(line);
    return 0;
}

}  // namespace

void processControlConnectionMessage(ctrlBufInfo_t* info) {
    vxApplication& app = *vxCurrent();
    if (!info->read_socket_buf || info->readBytes < 1) return;
    if (!skipLongLine(info)) {
        emptyBuffer(info);
        return;
    }
    for (skipZeroBytes(info); info->readBytes > 0; skipZeroBytes(info)) {
        char* newline = findNewline(info);
        if (!newline) break;
        char* line = unreadBytes(info);
        *newline = '\0';
        consume(info, static_cast<std::int32_t>(newline - line) + 1);
        if (handleLine(app, line) != 0) return;
    }
    keepPartialLine(info);
}

}  // namespace vx
