#include "commonlibc/VXAgentWs.h"

#include <libwebsockets.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

#include "commonlibc/platform/vx_platform_wire.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utf8.h"

namespace vx {

// In front of its bytes: the library writes its frame there.
struct VXAgentMessage {
    VXAgentMessage* next;
    std::size_t length;
    bool text;  // else binary: peers close on text that is no UTF-8
    unsigned char* bytes() { return reinterpret_cast<unsigned char*>(this + 1) + LWS_PRE; }
};

namespace {

constexpr std::size_t kSmallestParts = 4096;
constexpr std::size_t kPiece = 32768;  // of one write: more would be copied when the peer is slow

// Guards the send blocks, the ready list and the context. A leaf.
constinit std::mutex blockMutex;
VXAgentWs* readyList = nullptr;
lws_context* wakeContext = nullptr;
std::size_t allHeld = 0;   // bytes of all send blocks
std::size_t allParts = 0;  // bytes of all parts; listener only

void freeMessage(VXAgentMessage* message) {
    VXLB_FREE(message, "agent message", -1);
}

VXAgentMessage* makeMessage(const char* src, std::size_t len) {
    void* block = VXLB_MALLOC(sizeof(VXAgentMessage) + LWS_PRE + len, "agent message", -1);
    if (!block) return nullptr;
    auto* message = new (block) VXAgentMessage{nullptr, len, vxlb_is_utf8(src, len)};
    std::memcpy(message->bytes(), src, len);
    return message;
}

// The mutex is held, as in the next three.
void makeReady(VXAgentWs& record) {
    if (record.ready) return;
    record.ready = true;
    const bool first = readyList == nullptr;
    record.nextReady = std::exchange(readyList, &record);
    if (first && wakeContext) lws_cancel_service(wakeContext);
}

void leaveReadyList(const VXAgentWs& record) {
    for (VXAgentWs** at = &readyList; *at; at = &(*at)->nextReady)
        if (*at == &record) {
            *at = record.nextReady;
            return;
        }
}

bool fitsBlock(const VXAgentWs& record, std::size_t len) {
    return record.held < kAgentBlockFull && len <= kAgentBlockFull - record.held;
}

bool hasRoom(const VXAgentWs& record, std::size_t len) {
    return !record.overfull && (fitsBlock(record, len) || !record.passing) &&
           len <= kAllAgentBlocks - allHeld;
}

void append(VXAgentWs& record, VXAgentMessage* message) {
    if (fitsBlock(record, message->length))
        record.held += message->length;
    else
        record.passing = message;
    (record.last ? record.last->next : record.first) = message;
    record.last = message;
    allHeld += message->length;
    makeReady(record);
}

VXAgentMessage* firstMessage(const VXAgentWs& record) {
    const std::lock_guard lock(blockMutex);
    return record.first;
}

void dropFirst(VXAgentWs& record) {
    std::unique_lock lock(blockMutex);
    VXAgentMessage* message = record.first;
    record.first = message->next;
    if (!record.first) record.last = nullptr;
    if (record.passing == message)
        record.passing = nullptr;
    else
        record.held -= message->length;
    allHeld -= message->length;
    record.taken = 0;
    lock.unlock();
    freeMessage(message);
}

// Bytes of the block for that many; it grows by doubling, however small the parts are.
std::size_t roomOfParts(std::size_t length) {
    return length == 0 ? 0 : std::bit_ceil(std::max(length, kSmallestParts));
}

// One piece of the message. False when the connection has failed.
bool writePiece(VXAgentWs& record, VXAgentMessage& message) {
    const std::size_t count = std::min(message.length - record.taken, kPiece);
    int mode = LWS_WRITE_CONTINUATION;
    if (record.taken == 0) mode = message.text ? LWS_WRITE_TEXT : LWS_WRITE_BINARY;
    if (record.taken + count < message.length) mode |= LWS_WRITE_NO_FIN;
    unsigned char* from = message.bytes() + record.taken;  // what lies in front has gone: room for the frame
    if (lws_write(record.wsi, from, count, static_cast<lws_write_protocol>(mode)) < 0) return false;
    record.taken += count;
    return true;
}

}  // namespace

VXAgentWs* vxMakeAgentWs(lws* wsi) {
    void* block = VXLB_MALLOC(sizeof(VXAgentWs), "agent websocket", -1);
    if (!block) return nullptr;
    auto* record = new (block) VXAgentWs{};
    record->wsi = wsi;
    return record;
}

void vxFreeAgentWs(VXAgentWs* record) {
    if (!record) return;
    vxDropAgentParts(*record);
    std::unique_lock lock(blockMutex);
    if (record->ready) leaveReadyList(*record);
    lock.unlock();
    while (record->first) dropFirst(*record);
    VXLB_FREE(record, "agent websocket", -1);
}

void vxCloseAgentWs(VXAgentWs& record) {
    if (record.closing) return;
    record.closing = true;
    record.address = nullptr;
    if (record.wsi) lws_set_timeout(record.wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
}

void vxAgentWsPeer(const VXAgentWs& record, char* ip, std::size_t size, int* port) {
    const int descriptor = record.wsi ? lws_get_socket_fd(record.wsi) : -1;
    if (descriptor >= 0) vx_platform_connection_end(descriptor, false, ip, size, port);
}

int send_on_wsi(const char* src, VXAgentWs& record, std::size_t len) {
    VX_TRACE(4, kControlThread, kInfo, "here buf:%.*s len:%d", static_cast<int>(len), src,
             static_cast<int>(len));
    VXAgentMessage* message = makeMessage(src, len);
    std::unique_lock lock(blockMutex);
    if (message && hasRoom(record, len)) {
        append(record, message);
        const auto waiting = static_cast<int>(record.held);
        lock.unlock();
        VX_TRACE(4, kControlThread, kInfo, "handler buf:%.*s len:%d", static_cast<int>(len), src, waiting);
        VX_TRACE(4, kControlThread, kInfo, "handler buf[%c] len:%d", len ? *src : ' ', static_cast<int>(len));
        return 0;
    }
    record.overfull = true;
    makeReady(record);
    lock.unlock();
    freeMessage(message);
    return -1;
}

void vxSetAgentWsContext(lws_context* context) {
    const std::lock_guard lock(blockMutex);
    wakeContext = context;
}

void vxWakeAgentWs() {
    const std::lock_guard lock(blockMutex);
    if (wakeContext) lws_cancel_service(wakeContext);
}

VXAgentWs* vxTakeReadyAgentWs() {
    const std::lock_guard lock(blockMutex);
    VXAgentWs* record = readyList;
    if (!record) return nullptr;
    record->ready = false;
    readyList = record->nextReady;
    return record;
}

bool vxAgentWsLaden(const VXAgentWs& record) {
    const std::lock_guard lock(blockMutex);
    return record.passing || record.held > kAgentBlockFull / 2;
}

int vxWriteAgentWs(VXAgentWs& record) {
    while (VXAgentMessage* message = firstMessage(record)) {
        if (lws_partial_buffered(record.wsi) || lws_send_pipe_choked(record.wsi)) return 1;
        if (!writePiece(record, *message)) return -1;
        if (record.taken == message->length) dropFirst(record);
    }
    return 0;
}

bool vxKeepAgentPart(VXAgentWs& record, const char* in, std::size_t length, std::size_t limit) {
    if (length > limit - record.partsLength) return false;
    const std::size_t had = roomOfParts(record.partsLength);
    const std::size_t room = roomOfParts(record.partsLength + length);
    if (room > had) {
        if (room - had > kAllAgentParts - allParts) return false;
        char* parts = static_cast<char*>(VXLB_MALLOC(room, "agent message parts", -1));
        if (!parts) return false;
        if (record.parts) std::memcpy(parts, record.parts, record.partsLength);
        VXLB_FREE(std::exchange(record.parts, parts), "agent message parts", -1);
        allParts += room - had;
    }
    if (length) std::memcpy(record.parts + record.partsLength, in, length);
    record.partsLength += length;
    return true;
}

void vxDropAgentParts(VXAgentWs& record) {
    VXLB_FREE(std::exchange(record.parts, nullptr), "agent message parts", -1);
    allParts -= roomOfParts(std::exchange(record.partsLength, 0));
}

}  // namespace vx
