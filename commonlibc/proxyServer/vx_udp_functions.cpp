#include "commonlibc/proxyServer/vx_udp_functions.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "commonlibc/VXSys.h"
#include "commonlibc/proxyServer/vx_proxy_instance_link.h"
#include "commonlibc/proxyServer/vx_proxy_registration_line.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_udp_release.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

using FunctionTable = std::atomic<vxApplication*>;

constexpr std::size_t kTagsSize = 8192;       // of a registration; longer ones are cut
constexpr std::size_t kFunctionKeySize = 64;  // what a flowpath is filed under
constexpr std::size_t kAttachedKeySize = 50;
constexpr std::int64_t kMsPerSecond = 1000;

// A client that asks for its context; texts are cut like those of the contexts.
struct Registration {
    kwLocalStruct line;
    char apiReqId[kIdentitySize], funcName[kIdentitySize];
};

void copyView(char* out, std::size_t size, VXByteView view) {
    const std::size_t length = std::min(size - 1, view.size());
    if (length) std::memcpy(out, view.data(), length);
    out[length] = '\0';
}

bool takeRegistration(const VXUdpHeader& header, Registration& from) {
    if (header.tags.size() == 0) return false;
    if (!header.attached && (header.apiReqId.size() == 0 || header.funcName.size() == 0)) return false;
    char fields[kTagsSize];
    copyView(fields, sizeof(fields), header.tags);
    vxParseRegistrationLine(fields, from.line);
    vxlb_copy_text(from.line.agentType, sizeof(from.line.agentType), vxUdpAgentTypeName(header.agentType));
    copyView(from.apiReqId, sizeof(from.apiReqId), header.apiReqId);
    copyView(from.funcName, sizeof(from.funcName), header.funcName);
    return true;
}

bool same(const char* held, const char* given) {
    return held && std::strncmp(held, given, kIdentitySize - 1) == 0;
}

std::int32_t foundAt(const char* name, const char* server, std::int32_t index) {
    VX_TRACE(2, kControlThread, kInfo, "Received data for function = %s server = %s pos = %d ", name, server,
             index);
    return index;
}

FunctionTable* newTable(std::int32_t slots) {
    const auto count = static_cast<std::size_t>(slots);
    auto* table =
        static_cast<FunctionTable*>(VXLB_MALLOC(count * sizeof(FunctionTable), "UDP function table", -1));
    if (table) std::uninitialized_value_construct_n(table, count);
    return table;
}

// Everything below: VXUdp.registration is held.

void retire(FunctionTable* table) {
    static auto& retired = *new std::vector<void*>;  // readers may still look at it
    if (table) retired.push_back(table);
}

bool growTable() {
    const std::int32_t slots = VXUdp.functionSlots.load(std::memory_order_relaxed);
    FunctionTable* table = newTable(slots + kUdpTableStep);
    if (!table) return false;
    FunctionTable* former = VXUdp.functions.load(std::memory_order_relaxed);
    for (std::int32_t i = 0; i < slots; ++i) table[i].store(former[i].load());
    VXUdp.functions.store(table);
    VXUdp.functionSlots.store(slots + kUdpTableStep, std::memory_order_release);
    retire(former);
    return true;
}

// Index of the first empty entry, -1 without memory.
std::int32_t emptyEntry() {
    const FunctionTable* table = VXUdp.functions.load(std::memory_order_relaxed);
    const std::int32_t slots = VXUdp.functionSlots.load(std::memory_order_relaxed);
    for (std::int32_t i = 0; i < slots; ++i)
        if (!table[i].load(std::memory_order_relaxed)) return i;
    return growTable() ? slots : -1;
}

bool threadEnded(const vxApplication& app) {
    return app.control.controlThreadId.load(std::memory_order_acquire) == 0;
}

bool isFree(const vxApplication& app) {
    return threadEnded(app) && app.udp.settled;
}

std::int32_t contextsOnTheirWayOut() {
    std::int32_t count = 0;
    for (const vxApplication* app = VXUdp.freeContexts; app; app = app->udp.nextFree)
        if (!isFree(*app)) ++count;
    return count;
}

bool roomForFunction() {
    const std::int32_t most = VXProxy.ceilings.maxUdpFunctions;
    if (VXProxy.numUDPFunctions < most && VXProxy.numUDPFunctions + contextsOnTheirWayOut() < most)
        return true;
    ++VXUdp.functionsRefused;
    return false;
}

// A context as a new one is: one that an ended function has left, or a fresh block.
vxApplication* takeContext() {
    for (vxApplication** link = &VXUdp.freeContexts; *link; link = &(*link)->udp.nextFree) {
        vxApplication* app = *link;
        if (!isFree(*app)) continue;
        vxApplication* const next = app->udp.nextFree;
        if (!vxUdpRenew(*app)) return nullptr;
        *link = next;
        return app;
    }
    return vxNewApplication();
}

void giveContext(vxApplication* app) {
    app->udp.nextFree = VXUdp.freeContexts;
    VXUdp.freeContexts = app;
}

bool makeFunction(vxApplication& app, const Registration& from, std::int32_t index) {
    if (!app.udp.mutexPool && apr_pool_create(&app.udp.mutexPool, nullptr) != APR_SUCCESS) return false;
    if (apr_pool_create(&app.pool, nullptr) != APR_SUCCESS || !vxMakeContextMutexes(app)) return false;
    vxSetCurrent(&app);
    if (!setVXProxyInstance(app)) return false;
    VXIdentity_t& identity = app.identity;
    vxlb_copy_text(identity.funcName, kIdentitySize, from.funcName);
    identity.lookupKey = static_cast<char*>(VXLB_MALLOC(kFunctionKeySize, "lookupKey", index));
    if (!identity.lookupKey) return false;
    VXWriter(identity.lookupKey, kFunctionKeySize).text(from.apiReqId).text(from.funcName).terminate();
    if (!populateVXProxyInstance(app, from.line, index, 1)) return false;
    processInfo_t& process = *processAt(app, 0);
    process.firstWord = 0;
    process.pid.store(0, std::memory_order_release);
    identity.numProcess.store(1, std::memory_order_release);
    identity.activeProcesses.store(1, std::memory_order_relaxed);
    return true;
}

std::int32_t createFunction(const Registration& from) {
    if (!roomForFunction()) return -1;
    const std::int32_t index = emptyEntry();
    vxApplication* app = index >= 0 ? takeContext() : nullptr;
    if (!app) return -1;
    if (!makeFunction(*app, from, index)) {
        vxUdpRelease(*app);
        app->udp.settled = 1;
        giveContext(app);
        return -1;
    }
    ++VXProxy.numUDPFunctions;
    VX_TRACE(1, kControlThread, kInfo, "UDP Info populated for funcname = %s, pos %d total %d", from.funcName,
             index, VXProxy.numUDPFunctions);
    if (make_connection_with_vxc(*app, 1)) app->udp.lastActivityMs.store(vxlb_steady_ms());
    VXUdp.functions.load(std::memory_order_relaxed)[index].store(app);
    return index;
}

std::int32_t findFunction(const Registration& from) {
    const FunctionTable* table = VXUdp.functions.load(std::memory_order_relaxed);
    const std::int32_t slots = VXUdp.functionSlots.load(std::memory_order_relaxed);
    for (std::int32_t i = 0; i < slots; ++i) {
        const vxApplication* app = table[i].load(std::memory_order_relaxed);
        if (app && same(app->identity.funcName, from.funcName) &&
            same(app->identity.appServerName, from.line.vxAppServerHost))
            return foundAt(from.funcName, from.line.vxAppServerHost, i);
    }
    return -1;
}

// A control thread that ended, for want of settings perhaps, is started again; not with every datagram.
void linkAgain(std::int32_t index) {
    vxApplication* app = VXUdp.functions.load(std::memory_order_relaxed)[index].load();
    const std::int64_t sinceStart = vxlb_steady_ms() - app->identity.connectStartTimeMs;
    if (threadEnded(*app) && sinceStart >= kMsPerSecond) make_connection_with_vxc(*app, 1);
}

bool sameInstance(const VXIdentity_t& identity, const kwLocalStruct& line) {
    return same(identity.tierName, line.tierName) && same(identity.appServerName, line.vxAppServerHost) &&
           same(identity.agentName, line.agentName);
}

std::int32_t attach(std::int32_t index, vxApplication& app) {
    if (!app.identity.lookupKey)
        app.identity.lookupKey =
            static_cast<char*>(VXLB_MALLOC_AND_MEMSET(kAttachedKeySize, "lookupKey", index));
    if (!app.identity.lookupKey) return -1;
    ++VXProxy.numUDPAttached;
    app.udp.attached.store(1, std::memory_order_release);
    VXProxy.attached.load(std::memory_order_relaxed)[index].store(&app, std::memory_order_release);
    return index;
}

std::int32_t findAttached(const kwLocalStruct& line) {
    const std::int32_t count = VXProxy.numInstance.load(std::memory_order_acquire);
    for (std::int32_t i = 1; i < count; ++i) {
        const vxApplication* app = vxUdpAttached(i);
        if (app && sameInstance(app->identity, line)) return foundAt(line.tierName, line.vxAppServerHost, i);
    }
    for (std::int32_t i = 1; i < count; ++i) {
        vxApplication* app = instanceAt(i);
        if (app && same(app->identity.appName, line.appName) && sameInstance(app->identity, line))
            return attach(i, *app);
    }
    return -1;
}

bool isSilent(const vxApplication& app, std::int64_t nowMs) {
    const std::int64_t seconds = VXProxy.proxyudpTimeout < 1 ? kUdpDefaultTimeoutS : VXProxy.proxyudpTimeout;
    const std::int64_t last = app.udp.lastActivityMs.load(std::memory_order_relaxed);
    return last != 0 && nowMs - last > seconds * kMsPerSecond;
}

void takeOut(FunctionTable& entry, vxApplication& app) {
    processAt(app, 0)->pid.store(kFreePid, std::memory_order_release);
    app.identity.numProcess.store(0, std::memory_order_release);
    --VXProxy.numUDPFunctions;
    VX_TRACE(1, kControlThread, kInfo, "closing connection with vxc func=%s open connections %d",
             app.identity.funcName, VXProxy.numUDPFunctions);
    app.identity.udpTimeoutFlag.store(1, std::memory_order_release);
    vxlb_shared_shutdown(app.control.controlSocket);  // a read or a send that waits ends
    entry.store(nullptr);
    giveContext(&app);
}

// The first context on its way out that has no control thread to clear up behind it.
vxApplication* leftBehind() {
    const std::lock_guard lock(VXUdp.registration);
    for (vxApplication* app = VXUdp.freeContexts; app; app = app->udp.nextFree)
        if (threadEnded(*app) && !app->udp.settled) return app;
    return nullptr;
}

}  // namespace

bool vxUdpMakeTables() {
    const std::lock_guard lock(VXUdp.registration);
    if (VXUdp.functions.load()) return true;
    FunctionTable* table = newTable(VXProxy.udpTableSize);
    if (!table) return false;
    VXUdp.functions.store(table);
    VXUdp.functionSlots.store(VXProxy.udpTableSize, std::memory_order_release);
    return true;
}

vxApplication* vxUdpPin(std::int32_t index) {
    if (index < 0 || index >= VXUdp.functionSlots.load(std::memory_order_acquire)) return nullptr;
    vxApplication* app = VXUdp.functions.load()[index].load();
    if (!app) return nullptr;
    // Pinned first, looked up again behind it: whoever takes the entry out looks at the pins behind that.
    app->udp.pins.fetch_add(1);
    if (vxUdpStands(index, *app)) return app;
    vxUdpUnpin(*app);
    return nullptr;
}

void vxUdpUnpin(vxApplication& app) {
    app.udp.pins.fetch_sub(1, std::memory_order_release);
}

bool vxUdpStands(std::int32_t index, const vxApplication& app) {
    return VXUdp.functions.load()[index].load() == &app;
}

vxApplication* vxUdpAttached(std::int32_t index) {
    if (index < 1 || index >= VXProxy.numInstance.load(std::memory_order_acquire)) return nullptr;
    return VXProxy.attached.load(std::memory_order_acquire)[index].load(std::memory_order_acquire);
}

std::int32_t record_process_with_ndc_conn(const VXUdpHeader& header) {
    Registration from;
    if (!takeRegistration(header, from)) return -1;
    const std::lock_guard lock(VXUdp.registration);
    if (header.attached) return findAttached(from.line);
    const std::int32_t index = findFunction(from);
    if (index >= 0) linkAgain(index);
    const bool answersOnly = header.messageType == static_cast<std::int16_t>(VXWrapType::kRuckusResponse);
    return index >= 0 || answersOnly ? index : createFunction(from);
}

void vxUdpEndSilentFunctions(std::int64_t nowMs) {
    {
        const std::lock_guard lock(VXUdp.registration);
        FunctionTable* table = VXUdp.functions.load(std::memory_order_relaxed);
        const std::int32_t slots = VXUdp.functionSlots.load(std::memory_order_relaxed);
        for (std::int32_t i = 0; VXProxy.numUDPFunctions > 0 && i < slots; ++i) {
            vxApplication* app = table[i].load(std::memory_order_relaxed);
            if (app && isSilent(*app, nowMs)) takeOut(table[i], *app);
        }
    }
    while (vxApplication* app = leftBehind()) freeUDPConnections(app);
}

void vxUdpTellRefusals() {
    const std::lock_guard lock(VXUdp.registration);
    if (VXUdp.functionsRefused == VXUdp.functionsRefusedTold) return;
    VX_TRACE(1, kControlThread, kWarning,
             "UDP functions refused: %llu (+%llu), there may be maxUdpFunctions = %d",
             static_cast<unsigned long long>(VXUdp.functionsRefused),
             static_cast<unsigned long long>(VXUdp.functionsRefused - VXUdp.functionsRefusedTold),
             VXProxy.ceilings.maxUdpFunctions);
    VXUdp.functionsRefusedTold = VXUdp.functionsRefused;
}

}  // namespace vx
