#include "commonlibc/VXDataDispatcher.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::uint32_t kDropsPerLine = 1000;
constexpr std::size_t kAllocationNameSize = 48;

constinit thread_local VXRecordTaker recordTaker = nullptr;

std::uint64_t linesIn(const char* data, std::size_t length) {
    std::uint64_t lines = 0;
    const char* const end = data + length;
    while ((data = static_cast<const char*>(std::memchr(data, '\n', static_cast<std::size_t>(end - data))))) {
        ++lines;
        if (++data == end) break;
    }
    return lines;
}

// A call brings at least one record, whether it ends it or not.
std::uint64_t recordsIn(const char* data, std::int64_t length) {
    return std::max<std::uint64_t>(linesIn(data, static_cast<std::size_t>(length)), 1);
}

void appendBytes(VXBufferNode& node, const char* data, std::int64_t length) {
    std::memcpy(node.buffer + node.use_len, data, static_cast<std::size_t>(length));
    node.use_len += static_cast<std::int32_t>(length);
}

bool hasNodeBehind(VXBufferChain& chain, const VXBufferNode& node) {
    VXGuard lock(chain.listMutex);
    return node.next != nullptr;
}

// Second half of a record that straddles two nodes; the first node has left the write list.
int addRest(VXBufferChain& chain, const char* rest, std::int64_t length) {
    VXBufferNode& node = *chain.VXBCIAgentBB.load(std::memory_order_acquire);
    if (length <= node.buff_size - node.use_len) {
        appendBytes(node, rest, length);
        return 0;
    }
    if (node.use_len < node.buff_size) appendBytes(node, "\n", 1);  // the cut record ends as a short line
    return kChainCut;
}

void traceDrop(VXBufferChain& chain, std::uint32_t drops, int code) {
    if (drops % kDropsPerLine != kDropsPerLine - 1) return;
    VXGuard lock(chain.listMutex);
    VX_TRACE(1, kControlThread, kError,
             "VXDataDispatcher - dumpData(): Warning - No space left in buffer or thread is not initialized "
             "for sending data to VXCollector. Return = %d, writeListSize = %d readListSize = %d",
             code, chain.writeListSize, chain.readListSize);
}

void appendNode(VXBufferNode*& head, VXBufferNode*& tail, VXBufferNode* node) {
    node->next = nullptr;
    if (tail) {
        tail->next = node;
    } else {
        head = node;
    }
    tail = node;
}

// Next in turn for writing rather than last: a chain then touches no more nodes than its fullest moment
// needed, where a round through all of them would sooner or later make the whole of it resident.
void putBehindHead(VXBufferChain& chain, VXBufferNode* node) {
    VXBufferNode* head = chain.writeListHead;
    if (!head || chain.writeListTail == head) {
        appendNode(chain.writeListHead, chain.writeListTail, node);
        return;
    }
    node->next = head->next;
    head->next = node;
}

// Null without memory or for a chunk size below 1.
VXBufferNode* makeNode(std::int32_t chunkSize, int index) {
    if (chunkSize < 1) return nullptr;
    char name[kAllocationNameSize];
    std::snprintf(name, sizeof(name), "Date buffer node : %d", index);
    auto* node = static_cast<VXBufferNode*>(VXLB_MALLOC_AND_MEMSET(sizeof(VXBufferNode), name, index));
    if (!node) return nullptr;
    std::snprintf(name, sizeof(name), "Date buffer chunk : %d", index);
    node->buffer = static_cast<char*>(VXLB_MALLOC(static_cast<std::size_t>(chunkSize), name, index));
    if (!node->buffer) {
        VXLB_FREE(node, "Date buffer node", index);
        return nullptr;
    }
    node->buff_size = chunkSize;
    return node;
}

void emptyNode(VXBufferNode& node) {
    node.use_len = 0;
    node.offset = node.sentFrom = 0;
    node.buffer[0] = '\0';
}

std::uint64_t unsentIn(const VXBufferNode* node) {
    std::uint64_t records = 0;
    for (; node; node = node->next)
        records +=
            linesIn(node->buffer + node->offset, static_cast<std::size_t>(node->use_len - node->offset));
    return records;
}

void emptyChain(VXBufferChain& chain) {
    for (VXBufferNode* node = chain.writeListHead; node; node = node->next) emptyNode(*node);
    while (chain.readListHead) {
        emptyNode(*chain.readListHead);
        moveToWriteList(chain);
    }
    chain.heldBytes = 0;
    chain.headIsTorn = chain.passOver = 0;
}

// Both mutexes held, no connection.
std::uint64_t countUnsent(VXBufferChain& chain) {
    const std::uint64_t records = unsentIn(chain.readListHead) + unsentIn(chain.writeListHead);
    if (records) chain.recordsDropped.fetch_add(records, std::memory_order_relaxed);
    return records;
}

// False: there is nothing to take, or nobody to take it for.
bool isWanted(const vxApplication* app, const char* buffer, std::int64_t length) {
    if (!app) return false;
    if (!app->Server.testRunRunning.load(std::memory_order_acquire) &&
        !app->Server.draining.load(std::memory_order_acquire)) {
        VX_TRACE(4, kControlThread, kInfo, "test is not running");
        return false;
    }
    if (buffer && length > 0) return true;
    VX_TRACE(4, kControlThread, kInfo, "data is null or zero length");
    return false;
}

void freeNodes(VXBufferNode* node) {
    while (node) {
        VXBufferNode* next = node->next;
        VXLB_FREE(node->buffer, "Date buffer chunk", -1);
        VXLB_FREE(node, "Date buffer node", -1);
        node = next;
    }
}

}  // namespace

void dumpData(const char* buffer, std::int64_t length) {
    vxApplication* app = vxCurrent();
    if (!isWanted(app, buffer, length)) return;
    if (recordTaker) return recordTaker(buffer, length);
    VXBufferChain& chain = app->data.chain;
    VXGuard lock(chain.dumpMutex);
    const int code = addDataInSendBuffer(chain, buffer, length);
    if (code >= 0) {
        vxCountAccepted(chain, buffer, length);
        return;
    }
    vxCountRefused(chain, buffer, length);
    traceDrop(chain, app->VXSys.dataDropCount.load(std::memory_order_relaxed), code);
}

bool vxOfferRecord(const char* record, std::int64_t length) {
    vxApplication* app = vxCurrent();
    if (!isWanted(app, record, length)) return false;
    if (recordTaker) {
        recordTaker(record, length);
        return true;
    }
    VXBufferChain& chain = app->data.chain;
    VXGuard lock(chain.dumpMutex);
    const int code = vxAppendToChain(chain, record, length);
    if (code >= 0) vxCountAccepted(chain, record, length);
    if (code == kChainCut) vxCountRefused(chain, record, length);  // its beginning is out
    return code >= 0 || code == kChainCut;
}

void vxDivertRecords(VXRecordTaker taker) {
    recordTaker = taker;
}

int addDataInSendBuffer(VXBufferChain& chain, const char* buffer, std::int64_t length) {
    const int code = vxAppendToChain(chain, buffer, length);
    vxApplication* app = vxCurrent();
    if (code < 0 && app) app->VXSys.dataDropCount.fetch_add(1, std::memory_order_relaxed);
    return code;
}

void vxCountAccepted(VXBufferChain& chain, const char* data, std::int64_t length) {
    // Only the holder of dumpMutex writes it: no locked add is needed.
    chain.recordsAccepted.store(
        chain.recordsAccepted.load(std::memory_order_relaxed) + recordsIn(data, length),
        std::memory_order_relaxed);
}

void vxCountRefused(VXBufferChain& chain, const char* data, std::int64_t length) {
    chain.recordsDropped.fetch_add(recordsIn(data, length), std::memory_order_relaxed);
}

int vxAppendToChain(VXBufferChain& chain, const char* data, std::int64_t length) {
    VXBufferNode* node = chain.VXBCIAgentBB.load(std::memory_order_acquire);
    if (!node) {
        return chain.VXCollectorBB.load(std::memory_order_relaxed) ? kChainAllWaiting : kChainNoBuffers;
    }
    const std::int32_t remaining = node->buff_size - node->use_len;
    if (length <= remaining) {
        appendBytes(*node, data, length);
        if (node->use_len == node->buff_size) moveToReadList(chain);
        return 0;
    }
    if (!hasNodeBehind(chain, *node)) return kChainDropped;
    if (remaining < 0) {
        VX_TRACE(1, kControlThread, kError,
                 "Data calculation is failed for writeList. remainSize:%d buff_size:%d use_len:%d", remaining,
                 node->buff_size, node->use_len);
        return kChainDropped;
    }
    appendBytes(*node, data, remaining);
    moveToReadList(chain);
    return addRest(chain, data + remaining, length - remaining);
}

void moveToReadList(VXBufferChain& chain) {
    VXGuard lock(chain.listMutex);
    VXBufferNode* node = chain.writeListHead;
    if (!node) return;
    chain.writeListHead = node->next;
    chain.VXBCIAgentBB.store(node->next, std::memory_order_release);
    if (!chain.writeListHead) chain.writeListTail = nullptr;
    appendNode(chain.readListHead, chain.readListTail, node);
    if (!chain.VXCollectorBB.load(std::memory_order_relaxed))
        chain.VXCollectorBB.store(chain.readListHead, std::memory_order_release);
    ++chain.readListSize;
    --chain.writeListSize;
}

void moveToWriteList(VXBufferChain& chain) {
    VXGuard lock(chain.listMutex);
    VXBufferNode* node = chain.readListHead;
    if (!node) return;
    chain.readListHead = node->next;
    chain.VXCollectorBB.store(node->next, std::memory_order_release);
    if (!chain.readListHead) chain.readListTail = nullptr;
    putBehindHead(chain, node);
    if (!chain.VXBCIAgentBB.load(std::memory_order_relaxed))
        chain.VXBCIAgentBB.store(chain.writeListHead, std::memory_order_release);
    ++chain.writeListSize;
    --chain.readListSize;
}

void movePartialToReadList(VXBufferChain& chain) {
    VXGuard lock(chain.dumpMutex);
    const VXBufferNode* node = chain.VXBCIAgentBB.load(std::memory_order_acquire);
    if (node && node->use_len >= 1) moveToReadList(chain);
}

void movePartialToReadList() {
    if (vxApplication* app = vxCurrent()) movePartialToReadList(app->data.chain);
}

void handleHeartBeat(int flushPartial) {
    vxApplication* app = vxCurrent();
    if (!app) return;
    const std::int64_t now = vxlb_steady_ms();
    std::atomic<std::int64_t>& last = app->data.lastDataHeartbeatTime;
    if (last.load(std::memory_order_relaxed) == 0) last.store(now, std::memory_order_relaxed);
    if ((now - last.load(std::memory_order_relaxed)) / 1000 < vx_word_get(app->VXSys.dataHeartbeatInterval))
        return;
    dumpData("\n", 1);
    if (flushPartial == 1) movePartialToReadList(app->data.chain);
    last.store(now, std::memory_order_relaxed);
}

int buff_list_init() {
    vxApplication* app = vxCurrent();
    if (!app) return 1;
    VXBufferChain& chain = app->data.chain;
    const std::int32_t wanted = vx_word_get(app->VXSys.bciDataBufferMaxCount);
    const std::int32_t chunkSize = vx_word_get(app->VXSys.bciDataBufferMaxSize);
    VXGuard producers(chain.dumpMutex);
    VXGuard links(chain.listMutex);
    const std::int32_t present = chain.writeListSize + chain.readListSize;
    countUnsent(chain);  // before growing, which may take nodes out
    const int failed = wanted > present ? vxGrowChain(chain, wanted - present, chunkSize) : 0;
    emptyChain(chain);
    return failed;
}

int vxGrowChain(VXBufferChain& chain, std::int32_t count, std::int32_t chunkSize) {
    VXBufferNode* last = chain.writeListHead;
    if (last) freeNodes(std::exchange(last->next, nullptr));
    for (std::int32_t i = 0; i < count; ++i) {
        VXBufferNode* node = makeNode(chunkSize, i);
        if (!node) return 1;
        if (last) {
            last->next = node;
        } else {
            chain.writeListHead = node;
            chain.VXBCIAgentBB.store(node, std::memory_order_release);
        }
        chain.writeListTail = node;
        ++chain.writeListSize;
        last = node;
    }
    return 0;
}

std::int32_t vxExtendChain(VXBufferChain& chain, std::int32_t count, std::int32_t chunkSize) {
    std::int32_t added = 0;
    for (; added < count; ++added) {
        VXBufferNode* node = makeNode(chunkSize, added);
        if (!node) break;
        appendNode(chain.writeListHead, chain.writeListTail, node);
        if (!chain.VXBCIAgentBB.load(std::memory_order_relaxed))
            chain.VXBCIAgentBB.store(node, std::memory_order_release);
        ++chain.writeListSize;
    }
    return added;
}

std::uint64_t vxDiscardChain(VXBufferChain& chain) {
    VXGuard producers(chain.dumpMutex);
    VXGuard links(chain.listMutex);
    const std::uint64_t records = countUnsent(chain);
    emptyChain(chain);
    return records;
}

void vxFreeChain(VXBufferChain& chain) {
    freeNodes(chain.writeListHead);
    freeNodes(chain.readListHead);
    chain.writeListHead = chain.writeListTail = chain.readListHead = chain.readListTail = nullptr;
    chain.VXBCIAgentBB.store(nullptr);
    chain.VXCollectorBB.store(nullptr);
    chain.readListSize = chain.writeListSize = 0;
    chain.heldBytes = 0;
    chain.headIsTorn = chain.passOver = 0;
}

}  // namespace vx
