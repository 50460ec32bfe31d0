#include "commonlibc/proxyServer/vx_proxy_read.h"

#include <apr_errno.h>

#include <algorithm>
#include <cstring>

#include "commonlibc/VXAgentWs.h"
#include "commonlibc/proxyServer/vx_proxy_poll.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_proxy_relay.h"
#include "commonlibc/vxlb_decode.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr char kRecordStart = '^';
constexpr int kLastReads = 64;  // of a connection that is closed, whether its data is taken or not

// Of what the library has handed over, as much as there is room for.
int takeHandedOver(VXAgentWs& wsi, VXReadBuffer& buffer, apr_size_t room) {
    const apr_size_t count = std::min(wsi.inLength, room);
    if (count) std::memcpy(buffer.buffer + buffer.writeOffset, wsi.in, count);
    buffer.buffer[buffer.writeOffset + static_cast<std::int32_t>(count)] = '\0';
    wsi.in += count;
    wsi.inLength -= count;
    return static_cast<int>(count);
}

// One read at most up to `limit` bytes in the buffer, terminated. The count, or a code.
int receive(apr_socket_t* socket, VXAgentWs* wsi, VXReadBuffer& buffer, std::int32_t limit) {
    auto count = static_cast<apr_size_t>(limit - buffer.writeOffset);
    if (count == 0) return kReadFailed;
    if (wsi) return takeHandedOver(*wsi, buffer, count);
    apr_socket_timeout_set(socket, 0);  // readiness may be false: a read never waits
    const apr_status_t status = apr_socket_recv(socket, buffer.buffer + buffer.writeOffset, &count);
    if (APR_STATUS_IS_EAGAIN(status) || APR_STATUS_IS_EINTR(status)) return 0;
    if (APR_STATUS_IS_EOF(status)) return kReadClosed;
    if (status != APR_SUCCESS) return kReadFailed;
    buffer.buffer[buffer.writeOffset + static_cast<std::int32_t>(count)] = '\0';
    return static_cast<int>(count);
}

processInfo_t* processOf(const epollPtr_t* address) {
    return address ? processAt(*instanceAt(address->appIndex), address->procIndex) : nullptr;
}

// The process whose discovery connection this is, else null.
processInfo_t* discoveryProcess(const apr_socket_t* socket, const VXAgentWs* wsi, const epollPtr_t* address) {
    processInfo_t* process = processOf(address);
    return process && vxConnectionOf(*process, socket, wsi) == VXConnection::kDiscovery ? process : nullptr;
}

void putTailInFront(const processInfo_t& process, VXReadBuffer& buffer) {
    if (!process.discoveryTail) return;
    std::memcpy(buffer.buffer, process.discoveryTail, static_cast<std::size_t>(process.discoveryTailLength));
    buffer.writeOffset = buffer.remaining = process.discoveryTailLength;
}

void keepTail(processInfo_t& process, const VXReadBuffer& buffer) {
    VXLB_FREE(process.discoveryTail, "discovery tail", -1);
    process.discoveryTail = nullptr;
    process.discoveryTailLength = 0;
    if (buffer.remaining == 0) return;
    const auto length = static_cast<std::size_t>(buffer.remaining);
    process.discoveryTail = static_cast<char*>(VXLB_MALLOC(length, "discovery tail", -1));
    if (!process.discoveryTail) return;
    std::memcpy(process.discoveryTail, buffer.buffer + buffer.readOffset, length);
    process.discoveryTailLength = buffer.remaining;
}

void traceClosed(int result, const epollPtr_t* address) {
    if (address)
        VX_TRACE(1, kControlThread, kInfo, "Connection closed, rv = %d (appIndex = %d, procIndex = %d).",
                 result, address->appIndex, address->procIndex);
    else
        VX_TRACE(1, kControlThread, kInfo, "Connection closed, rv = %d.", result);
}

char* nextNewline(const VXReadBuffer& buffer) {
    return static_cast<char*>(
        std::memchr(buffer.buffer + buffer.readOffset, '\n', static_cast<std::size_t>(buffer.remaining)));
}

void consume(VXReadBuffer& buffer, std::int32_t count) {
    buffer.readOffset += count;
    buffer.remaining -= count;
}

void moveRestToStart(VXReadBuffer& buffer) {
    if (buffer.readOffset == 0) return;
    std::memmove(buffer.buffer, buffer.buffer + buffer.readOffset,
                 static_cast<std::size_t>(buffer.remaining));
    buffer.readOffset = 0;
    buffer.writeOffset = buffer.remaining;
    buffer.buffer[buffer.writeOffset] = '\0';
}

// Somebody at the far end takes data of this instance.
bool collectorTakesData(const vxApplication& app) {
    const bool overLws = app.control.lws_active.load(std::memory_order_acquire) == 1;
    const bool control = overLws ? app.control.controlWsi.load(std::memory_order_acquire) != nullptr
                                 : app.control.controlSocket.get() != nullptr;
    const bool data = overLws ? app.data.dataWsi.load(std::memory_order_acquire) != nullptr
                              : app.data.dataSocket.get() != nullptr;
    if (control && data) return true;
    VX_TRACE(1, kControlThread, kWarning, "%s",
             data || overLws ? "Data connection with VXC is closed. Ignoring the data."
                             : "Data connection with VXC is not created hence ignoring the data.");
    return false;
}

// What the last read of a data connection left of a record stands in its process's data buffer, behind its
// length: bytes of two processes must never meet.
constexpr std::size_t kTailHead = sizeof(std::int32_t);

void putCarryOverInFront(const processInfo_t& process, VXReadBuffer& buffer) {
    if (!process.dataBuffer) return;
    std::memcpy(&buffer.writeOffset, process.dataBuffer, kTailHead);
    std::memcpy(buffer.buffer, process.dataBuffer + kTailHead, static_cast<std::size_t>(buffer.writeOffset));
}

// Nobody takes the data: what is there, and what waits in the system's buffer, is counted before the
// connection is closed. The buffer holds what the last read left and what this one brought.
void refuseData(apr_socket_t* socket, VXAgentWs* wsi, VXReadBuffer& buffer, int count) {
    for (int reads = 0; count > 0; ++reads) {
        const std::int32_t held = buffer.writeOffset + count;
        const std::int32_t torn = vxRefuseMessages(buffer.buffer, held);
        std::memmove(buffer.buffer, buffer.buffer + held - torn, static_cast<std::size_t>(torn));
        buffer.writeOffset = torn;
        count = reads < kLastReads ? receive(socket, wsi, buffer, kReadBufSize) : 0;
    }
    if (buffer.writeOffset > 0) vxCountRefusedMessage();  // its end will not come
}

// Behind decodeMessage: what it left goes with the connection. The decode lock is held.
void keepCarryOver(VXDecoderState_t& decoder, processInfo_t& process) {
    if (!process.dataBuffer && decoder.partialLength == 0) return;
    if (!process.dataBuffer)
        process.dataBuffer = static_cast<char*>(VXLB_MALLOC(kTailHead + kPartialSize, "data buffer", -1));
    if (process.dataBuffer) {
        std::memcpy(process.dataBuffer, &decoder.partialLength, kTailHead);
        std::memcpy(process.dataBuffer + kTailHead, decoder.partialBuffer,
                    static_cast<std::size_t>(decoder.partialLength));
    }
    decoder.partialLength = 0;
    decoder.partialBuffer[0] = '\0';
}

void decodeRest(const apr_socket_t* socket, const VXAgentWs* wsi, VXReadBuffer& buffer,
                const epollPtr_t& address) {
    vxApplication& app = *instanceAt(address.appIndex);
    processInfo_t& process = *processAt(app, address.procIndex);
    vxSetCurrent(&app);
    const VXGuard lock(app.decoder.decodeMutex);
    decodeMessage(buffer.buffer + buffer.readOffset, buffer.remaining, address.procIndex, 0, nullptr);
    if (vxConnectionOf(process, socket, wsi) == VXConnection::kData)
        keepCarryOver(app.decoder, process);  // others have no next read
    setResetSocketBuffer(buffer);
}

}  // namespace

bool setResetSocketBuffer(VXReadBuffer& buffer) {
    buffer.size = kReadBufSize;
    buffer.readOffset = buffer.writeOffset = buffer.remaining = 0;
    if (!buffer.buffer)
        buffer.buffer =
            static_cast<char*>(VXLB_MALLOC(kReadBufSize + 1, "control buffer read_socket_buf", -1));
    if (!buffer.buffer) return false;
    *buffer.buffer = '\0';
    return true;
}

int readMessageFromSocket(apr_socket_t* socket, VXReadBuffer& buffer, epollPtr_t** epollPtrSlot,
                          VXAgentWs* wsi) {
    if (!setResetSocketBuffer(buffer)) return kReadFailed;
    processInfo_t* discovery = discoveryProcess(socket, wsi, *epollPtrSlot);
    if (discovery) putTailInFront(*discovery, buffer);
    const int count = receive(socket, wsi, buffer, kMaxMessage);
    if (count == 0) return kReadNothing;
    if (count == kReadClosed) {
        traceClosed(count, *epollPtrSlot);
        return kReadClosed;
    }
    if (count > 0) {
        buffer.remaining += count;
        buffer.writeOffset += count;
    }
    const bool waitsForNewline = discovery && count > 0 && buffer.writeOffset < kMaxMessage;
    if (!(waitsForNewline && !nextNewline(buffer))) {
        const int result = processdatamsg(socket, buffer, epollPtrSlot, wsi);
        if (result != kReadDone) return result;
    }
    if (discovery && !vxConnectionClosed(socket, wsi)) {
        VX_TRACE(3, kControlThread, kInfo, "Method Called for AD ");
        keepTail(*discovery, buffer);
    }
    return kReadDone;
}

int processdatamsg(apr_socket_t* socket, VXReadBuffer& buffer, epollPtr_t** epollPtrSlot, VXAgentWs* wsi) {
    char* newline = nextNewline(buffer);
    if (!newline) {
        VX_TRACE(1, kControlThread, kError,
                 "Invalid Message format(Message not terminiated with newline). Closing the connection.");
        return kReadClosed;
    }
    for (; newline; newline = nextNewline(buffer)) {
        char* line = buffer.buffer + buffer.readOffset;
        const auto length = static_cast<std::int32_t>(newline - line);
        const bool recordsFollow = buffer.remaining > length + 1 && newline[1] == kRecordStart;
        *newline = '\0';
        consume(buffer, length + 1);
        if (length > 0) processReceivedMsg(socket, line, epollPtrSlot, wsi);
        if (vxConnectionClosed(socket, wsi)) return kReadDone;
        if (recordsFollow && *epollPtrSlot) {
            decodeRest(socket, wsi, buffer, **epollPtrSlot);
            return kReadDone;
        }
    }
    moveRestToStart(buffer);
    return kReadDone;
}

int readDataFromSocket(apr_socket_t* socket, VXReadBuffer& buffer, std::int32_t appIndex,
                       std::int32_t procIndex, VXAgentWs* wsi) {
    vxApplication& app = *vxCurrent();
    if (!setResetSocketBuffer(buffer)) return kReadFailed;
    const VXGuard lock(app.decoder.decodeMutex);
    processInfo_t& process = *processAt(app, procIndex);
    putCarryOverInFront(process, buffer);
    const int count = receive(socket, wsi, buffer, kReadBufSize);
    if (count == 0) return kReadNothing;
    if (!collectorTakesData(app)) {
        refuseData(socket, wsi, buffer, count);
        return kReadClosed;
    }
    if (count == kReadFailed)
        VX_TRACE(1, kControlThread, kError,
                 "Read partial message '%d', rv = %d (appIndex = %d, procIndex = %d)", buffer.writeOffset,
                 count, appIndex, procIndex);
    if (count == kReadClosed)
        VX_TRACE(1, kControlThread, kInfo, "Data Connection Closed, rv = %d (appIndex = %d, procIndex = %d)",
                 count, appIndex, procIndex);
    if (count < 0) return count;
    decodeMessage(buffer.buffer, buffer.writeOffset + count, procIndex, 0, nullptr);
    keepCarryOver(app.decoder, process);
    return kReadDone;
}

void vxReadLastRecords(const epollPtr_t& address) {
    vxApplication& app = *instanceAt(address.appIndex);
    apr_socket_t* socket = processAt(app, address.procIndex)->data.get();
    if (!socket) return;
    vxSetCurrent(&app);
    for (int reads = 0; reads < kLastReads; ++reads) {
        int atEnd = 0;  // which the caller traces, if anybody
        if (apr_socket_atreadeof(socket, &atEnd) != APR_SUCCESS || atEnd) return;
        if (readDataFromSocket(socket, VXProxy.dataBuf, address.appIndex, address.procIndex) != kReadDone)
            return;
    }
}

}  // namespace vx
