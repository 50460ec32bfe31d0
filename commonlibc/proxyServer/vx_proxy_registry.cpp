#include "commonlibc/proxyServer/vx_proxy_registry.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "commonlibc/VXAgentWs.h"
#include "commonlibc/proxyServer/vx_proxy_poll.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

using InstanceTable = std::atomic<vxApplication*>;

constexpr std::int32_t kProcessGrowBy = 510;

struct ConnectionRow {
    VXSharedSocket processInfo_t::*handle;
    std::int32_t processInfo_t::*descriptor;
    std::atomic<VXAgentWs*> processInfo_t::*wsi;
};
constexpr ConnectionRow kConnectionRows[] = {
    {&processInfo_t::control, &processInfo_t::controlFd, &processInfo_t::controlWs},
    {&processInfo_t::data, &processInfo_t::dataFd, &processInfo_t::dataWs},
    {&processInfo_t::autoSensor, &processInfo_t::asFd, &processInfo_t::asWs},
    {&processInfo_t::discovery, &processInfo_t::discoveryFd, &processInfo_t::discoveryWs},
};
static_assert(std::size(kConnectionRows) == static_cast<std::size_t>(VXConnection::kCount));

const ConnectionRow& rowOf(VXConnection kind) {
    return kConnectionRows[static_cast<std::size_t>(kind)];
}

// Replaced tables, which other threads may still read.
void retire(void* table) {
    static auto& retired = *new std::vector<void*>;  // to the end of the process, whoever still runs then
    if (table) retired.push_back(table);
}

InstanceTable* newInstanceTable(std::int32_t slots, const char* what) {
    const auto count = static_cast<std::size_t>(slots);
    auto* table = static_cast<InstanceTable*>(VXLB_MALLOC(count * sizeof(InstanceTable), what, -1));
    if (table) std::uninitialized_value_construct_n(table, count);
    return table;
}

InstanceTable* grownTable(const InstanceTable* old, std::int32_t oldSlots) {
    InstanceTable* table = newInstanceTable(oldSlots + kInstanceTableStep,
                                            "Re-Allocating memory to store the nProxyInstance->processInfo");
    for (std::int32_t i = 0; table && i < oldSlots; ++i) table[i].store(old[i].load());
    return table;
}

// The slots that were there keep their contents; the new ones are empty.
bool growInstanceTables() {
    const std::lock_guard lock(VXUdp.registration);  // workers attach clients to entries of the one table
    const std::int32_t slots = VXProxy.instanceTableSize;
    InstanceTable* instances = grownTable(VXProxyInstance.load(), slots);
    InstanceTable* attached = instances ? grownTable(VXProxy.attached.load(), slots) : nullptr;
    if (!attached) {
        VXLB_FREE(instances, "VXProxyInstance", -1);
        return false;
    }
    retire(VXProxyInstance.exchange(instances, std::memory_order_acq_rel));
    retire(VXProxy.attached.exchange(attached, std::memory_order_acq_rel));
    VXProxy.instanceTableSize = slots + kInstanceTableStep;
    return true;
}

// A table of an earlier start that took no agent.
bool holdsNoInstance(const InstanceTable* table) {
    for (std::int32_t i = 1; table && i < VXProxy.instanceTableSize; ++i)
        if (table[i].load()) return false;
    return table != nullptr;
}

processInfo_t** newProcessTable(std::int32_t records, const char* what) {
    return static_cast<processInfo_t**>(
        VXLB_MALLOC_AND_MEMSET(static_cast<std::size_t>(records) * sizeof(void*), what, -1));
}

processInfo_t* newProcessRecord(apr_pool_t* pool) {
    void* block = VXLB_MALLOC_AND_MEMSET(sizeof(processInfo_t), "processInfo", -1);
    auto* pair = static_cast<epollPtr_t*>(VXLB_MALLOC_AND_MEMSET(sizeof(epollPtr_t), "epollPtr", -1));
    apr_thread_mutex_t *closeMutex = nullptr, *sendMutex = nullptr;
    if (!block || !pair || !vxlb_make_mutex(closeMutex, pool) || !vxlb_make_mutex(sendMutex, pool)) {
        VXLB_FREE(block, "processInfo", -1);
        VXLB_FREE(pair, "epollPtr", -1);
        return nullptr;
    }
    auto* process = new (block) processInfo_t{};
    for (const ConnectionRow& row : kConnectionRows) {
        (process->*row.handle).closeMutex = closeMutex;
        process->*row.descriptor = -1;
    }
    process->sendMutex = sendMutex;
    process->epollPtr = pair;
    process->pid.store(kFreePid, std::memory_order_relaxed);
    return process;
}

// What a function holds goes with it; what an instance holds stays to the end of the process.
apr_pool_t* poolOf(const vxApplication& instance) {
    return instance.udp.mutexPool ? instance.pool : VXProxy.listenerPool;
}

// The eight texts of an instance, with their sizes.
struct IdentityText {
    char* VXIdentity_t::*member;
    std::size_t size;
    const char* name;
};
constexpr IdentityText kIdentityTexts[] = {
    {&VXIdentity_t::agentName, kIdentitySize, "agentName"},
    {&VXIdentity_t::tierName, kIdentitySize, "tierName"},
    {&VXIdentity_t::appServerName, kIdentitySize, "appServerName"},
    {&VXIdentity_t::appName, kIdentitySize, "appName"},
    {&VXIdentity_t::agentType, kAgentTypeSize, "agentType"},
    {&VXIdentity_t::attributes, kIdentitySize, "attributes"},
    {&VXIdentity_t::tags, kIdentitySize, "tags"},
    {&VXIdentity_t::funcName, kIdentitySize, "funcName"},
};

void freeDataBuffer(processInfo_t& process) {
    VXLB_FREE(std::exchange(process.dataBuffer, nullptr), "Free'ing data buffer", -1);
}

void freeDiscoveryTail(processInfo_t& process) {
    VXLB_FREE(std::exchange(process.discoveryTail, nullptr), "discovery tail", -1);
    process.discoveryTailLength = 0;
}

// What it answers nobody sends on any more.
VXAgentWs* takeWebSocket(processInfo_t& process, VXConnection kind) {
    std::atomic<VXAgentWs*>& handle = process.*rowOf(kind).wsi;
    if (!handle.load(std::memory_order_relaxed)) return nullptr;
    const VXGuard lock(process.sendMutex);
    return handle.exchange(nullptr, std::memory_order_acq_rel);
}

bool threadsMayRun(const vxApplication& app) {
    return app.control.controlThreadId.load(std::memory_order_acquire) != 0 ||
           app.data.data_thread_running.load(std::memory_order_acquire) ||
           app.autoSensor.autoSensor_thread_running.load(std::memory_order_acquire);
}

}  // namespace

bool vxMakeInstanceTables() {
    if (VXProxy.attached.load() && holdsNoInstance(VXProxyInstance.load())) return true;
    InstanceTable* instances = newInstanceTable(VXProxy.instanceTableSize, "VXProxyInstance");
    InstanceTable* attached = newInstanceTable(VXProxy.instanceTableSize, "attached clients");
    if (!instances || !attached) {
        VXLB_FREE(instances, "VXProxyInstance", -1);
        VXLB_FREE(attached, "attached clients", -1);
        return false;
    }
    retire(VXProxyInstance.exchange(instances, std::memory_order_acq_rel));
    retire(VXProxy.attached.exchange(attached, std::memory_order_acq_rel));
    return true;
}

std::int32_t vxFreeInstanceSlot() {
    for (std::int32_t i = 1; i < VXProxy.instanceTableSize; ++i)
        if (!instanceAt(i)) return i;
    const std::int32_t firstNew = VXProxy.instanceTableSize;
    if (!growInstanceTables()) return -1;
    VX_TRACE(1, kControlThread, kInfo, "VXProxyInstance has room for %d instances now",
             VXProxy.instanceTableSize);
    return firstNew;
}

bool setVXProxyInstance(vxApplication& instance) {
    VXIdentity_t& identity = instance.identity;
    for (const IdentityText& row : kIdentityTexts) {
        identity.*row.member = static_cast<char*>(VXLB_MALLOC_AND_MEMSET(row.size, row.name, -1));
        if (!(identity.*row.member)) return false;
    }
    identity.reservedMap = create_hashmap(poolOf(instance));
    identity.udpClientMap = create_hashmap(poolOf(instance));
    if (!identity.udpClientMap)
        VX_TRACE(1, kControlThread, kError, "Error in creating map for udp connections...");
    identity.numProcess.store(0, std::memory_order_relaxed);
    identity.activeProcesses.store(0, std::memory_order_relaxed);
    return true;
}

bool populateVXProxyInstance(vxApplication& instance, const kwLocalStruct& line, std::int32_t index,
                             int singleBlock) {
    VXIdentity_t& identity = instance.identity;
    vxlb_copy_text(identity.appName, kIdentitySize, line.appName);
    vxlb_copy_text(identity.agentName, kIdentitySize, line.agentName);
    vxlb_copy_text(identity.tierName, kIdentitySize, line.tierName);
    vxlb_copy_text(identity.appServerName, kIdentitySize, line.vxAppServerHost);
    vxlb_copy_text(identity.agentType, kAgentTypeSize, line.agentType);
    vxlb_copy_text(identity.attributes, kIdentitySize, line.attributes);
    vxlb_copy_text(identity.tags, kIdentitySize, line.tags);
    identity.startTimeMs = vxlb_now_ms();
    identity.appIndex = index;

    const std::int32_t records = singleBlock ? 1 : kProcessStep;
    processInfo_t** table = newProcessTable(records, "nProxyInstance->processInfo");
    if (!table) return false;
    if (singleBlock)
        VX_TRACE(1, kControlThread, kInfo,
                 "Memory allocated for nProxyInstance->processInfo. Available memory = '1' block.");
    else
        VX_TRACE(
            1, kControlThread, kInfo,
            "Memory allocated for nProxyInstance->processInfo. Available memory = '500' blocks. index %d",
            index);
    identity.processCapacity = records;
    identity.processInfo.store(table, std::memory_order_release);
    processInfo_t* first = vxProcessRecord(instance, 0);
    if (first) first->pid.store(line.pid, std::memory_order_relaxed);
    return first != nullptr;
}

processInfo_t* vxProcessRecord(vxApplication& instance, std::int32_t procIndex) {
    if (procIndex < 0 || procIndex >= instance.identity.processCapacity) return nullptr;
    processInfo_t*& record = instance.identity.processInfo.load(std::memory_order_relaxed)[procIndex];
    if (!record) record = newProcessRecord(poolOf(instance));
    if (record) *record->epollPtr = {instance.identity.appIndex, procIndex};
    return record;
}

bool vxGrowProcessTable(vxApplication& instance) {
    VXIdentity_t& identity = instance.identity;
    const std::int32_t used = identity.numProcess.load(std::memory_order_relaxed);
    if (used % kProcessStep != kProcessGrowAt || identity.processCapacity >= used + kProcessGrowBy)
        return true;
    const std::int32_t records = used + kProcessGrowBy;
    processInfo_t** table =
        newProcessTable(records, "Reallocating Memory to store VXProxyInstance->processInfo");
    if (!table) return false;
    processInfo_t** former = identity.processInfo.load(std::memory_order_relaxed);
    std::copy_n(former, identity.processCapacity, table);
    identity.processCapacity = records;
    identity.processInfo.store(table, std::memory_order_release);
    retire(former);
    VX_TRACE(1, kControlThread, kInfo,
             "Memory reallocated for VXProxyInstance->processInfo. Available memory = '%d' blocks.", records);
    return true;
}

std::int32_t vxFindProcess(const vxApplication& instance, std::int64_t pid) {
    const std::int32_t count = instance.identity.numProcess.load(std::memory_order_relaxed);
    for (std::int32_t i = 0; i < count; ++i)
        if (processAt(instance, i)->pid.load(std::memory_order_relaxed) == pid) return i;
    return -1;
}

void vxAttachSocket(processInfo_t& process, VXConnection kind, apr_socket_t* socket, VXAgentWs* wsi) {
    vxCloseConnection(process, kind, true);
    if (wsi) {
        const VXGuard lock(process.sendMutex);
        (process.*rowOf(kind).wsi).store(wsi, std::memory_order_release);
        return;
    }
    process.*rowOf(kind).descriptor = vxlb_socket_fd(socket);
    vxlb_shared_put(process.*rowOf(kind).handle, socket);
}

void vxCloseConnection(processInfo_t& process, VXConnection kind, bool removeFromPoll) {
    VXSharedSocket& handle = process.*rowOf(kind).handle;
    if (handle.get()) {
        vxlb_shared_shutdown(handle);  // a sender that waits for the peer lets go of the send mutex
        const VXGuard lock(process.sendMutex);
        cleanAndRemoveSocket(handle, removeFromPoll);
    }
    if (VXAgentWs* wsi = takeWebSocket(process, kind)) vxCloseAgentWs(*wsi);
    process.*rowOf(kind).descriptor = -1;
    if (kind == VXConnection::kData) {
        process.firstWord = 0;
        freeDataBuffer(process);
    }
    if (kind == VXConnection::kDiscovery) freeDiscoveryTail(process);
}

bool vxConnectionStands(const processInfo_t& process, VXConnection kind) {
    return (process.*rowOf(kind).handle).get() || (process.*rowOf(kind).wsi).load(std::memory_order_relaxed);
}

VXConnection vxConnectionOf(const processInfo_t& process, const apr_socket_t* socket, const VXAgentWs* wsi) {
    const auto isThis = [&](const ConnectionRow& row) {
        return wsi ? (process.*row.wsi).load(std::memory_order_relaxed) == wsi
                   : (process.*row.handle).get() == socket;
    };
    std::size_t kind = 0;
    while (kind < std::size(kConnectionRows) && !isThis(kConnectionRows[kind])) ++kind;
    return static_cast<VXConnection>(kind);
}

void closeAllConnectionsOfProcess(std::int32_t appIndex, std::int32_t procIndex) {
    processInfo_t& process = *processAt(*instanceAt(appIndex), procIndex);
    for (const VXConnection kind : {VXConnection::kControl, VXConnection::kData, VXConnection::kAutoSensor})
        vxCloseConnection(process, kind, true);
    process.pid.store(kFreePid, std::memory_order_release);
}

void freeclientdata(vxApplication& instance) {
    VXIdentity_t& identity = instance.identity;
    for (const IdentityText& row : kIdentityTexts)
        VXLB_FREE(std::exchange(identity.*row.member, nullptr), row.name, -1);
    VXLB_FREE(std::exchange(identity.lookupKey, nullptr), "lookupKey", -1);
    {
        const VXGuard lock(identity.messageMutex);
        VXLB_FREE(std::exchange(identity.startInstrumentation, nullptr), "start line", -1);
    }
    VXBCISetting_t& setting = instance.VXBCISetting;
    for (VXSharedText* text : {&setting.appName, &setting.tierName, &setting.vxAppServerHost,
                               &setting.encodedAppName, &setting.encodedTierName, &setting.encodedServerName})
        setSharedText(instance.retired, *text, nullptr);
}

void proxyMemClean() {
    if (!VXProxyInstance.load(std::memory_order_acquire)) return;
    const std::int32_t count = VXProxy.numInstance.load(std::memory_order_acquire);
    for (std::int32_t i = 1; i < count; ++i) {
        vxApplication* app = instanceAt(i);
        if (app && !threadsMayRun(*app)) freeclientdata(*app);
    }
    VX_TRACE(1, kControlThread, kInfo, "Free'd VXProxy Instance structure successfully.");
}

}  // namespace vx
