#include "commonlibc/proxyServer/vx_proxy_registration.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "commonlibc/VXAgentWs.h"
#include "commonlibc/proxyServer/vx_proxy_instance_link.h"
#include "commonlibc/proxyServer/vx_proxy_poll.h"
#include "commonlibc/proxyServer/vx_proxy_registration_line.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_proxy_send.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::size_t kReplySize = 512;

// A connection while it registers.
struct Registration {
    apr_socket_t* socket;
    epollPtr_t** slot;
    const kwLocalStruct& line;
    VXAgentWs* wsi;
    VXPeer peer{socket, wsi};

    int tracedPid() const { return static_cast<int>(line.pid); }
    void refuse() {
        if (wsi)
            vxCloseAgentWs(*wsi);
        else
            cleanAndRemoveSocket(socket, false);
    }
};

// The library polls a WebSocket itself.
bool addInPoll(apr_socket_t* socket, const VXAgentWs* wsi, epollPtr_t* address) {
    return wsi || addSocketInEpoll(socket, address);
}

bool same(const char* a, const char* b) {
    return a && b && std::strcmp(a, b) == 0;
}

bool isControlInstance(const vxApplication& app, const kwLocalStruct& line) {
    const VXIdentity_t& identity = app.identity;
    return same(identity.tierName, line.tierName) && same(identity.appServerName, line.vxAppServerHost) &&
           same(identity.agentName, line.agentName) &&
           (same(identity.appName, line.appName) || same(app.VXBCISetting.appName.get(), line.appName));
}

// By what the collector knows the instance by.
bool isKnownInstance(const vxApplication& app, const kwLocalStruct& line) {
    const VXBCISetting_t& setting = app.VXBCISetting;
    return same(setting.appName.get(), line.appName) && vx_word_get(setting.appID) == line.appID &&
           same(setting.tierName.get(), line.tierName) && vx_word_get(setting.tierID) == line.tierID &&
           same(setting.vxAppServerHost.get(), line.vxAppServerHost) &&
           vx_word_get(setting.vxAppServerID) == line.vxAppServerID &&
           same(app.identity.agentName, line.agentName);
}

// Index of the first instance that matches, 0 when none does.
std::int32_t findInstance(bool (*matches)(const vxApplication&, const kwLocalStruct&),
                          const kwLocalStruct& line) {
    for (std::int32_t i = 1; i < VXProxy.instanceTableSize; ++i) {
        const vxApplication* app = instanceAt(i);
        if (app && matches(*app, line)) return i;
    }
    return 0;
}

bool sendReply(processInfo_t& process, std::int32_t procIndex, std::int64_t pid, const VXPeer& peer) {
    char reply[kReplySize];
    const int length =
        std::snprintf(reply, sizeof(reply), "vx_ctrl_msg_rep:result=Ok;procIndex=%d\n", procIndex);
    if (vxListenerSend(process, reply, static_cast<std::size_t>(length)) != 0) {
        VX_TRACE(1, kControlThread, kError, "Connection Broken. Unable to send '%s' for pid = %d, '%s:%d'",
                 reply, static_cast<int>(pid), peer.ip(), peer.port());
        return false;
    }
    VX_TRACE(1, kControlThread, kInfo, "PROXY->INSTANCE Sent '%s' '%s:%d'", reply, peer.ip(), peer.port());
    return true;
}

struct LineFree {
    void operator()(char* text) const noexcept { VXLB_FREE(text, "start line to agent", -1); }
};

bool sendStartLine(processInfo_t& process, const char* line, std::int32_t appIndex, std::int64_t pid,
                   const VXPeer& peer) {
    const std::size_t length = std::strlen(line);
    const std::unique_ptr<char, LineFree> whole(
        static_cast<char*>(VXLB_MALLOC(length + 1, "start line to agent", appIndex)));
    if (!whole) return true;
    std::memcpy(whole.get(), line, length);
    whole.get()[length] = '\n';
    if (vxListenerSend(process, whole.get(), length + 1) != 0) {
        VX_TRACE(1, kControlThread, kError,
                 "Connection Broken. Unable to send 'START_INSTRUMENTATION' for pid = %d, '%s:%d'",
                 static_cast<int>(pid), peer.ip(), peer.port());
        return false;
    }
    VX_TRACE(1, kControlThread, kInfo,
             "Sent 'START_INSTRUMENTATION' message successfully for pid = %d, '%s:%d' index=%d",
             static_cast<int>(pid), peer.ip(), peer.port(), appIndex);
    return true;
}

// What the process has missed. The mutex orders this against the control thread, which sets the two words
// under it and then writes to every process that is published.
bool tellWhatWasMissed(vxApplication& app, processInfo_t& process, const VXPeer& peer) {
    const VXGuard lock(app.identity.messageMutex);
    const std::int64_t pid = process.pid.load(std::memory_order_relaxed);
    if (app.Server.replyReceived.load(std::memory_order_acquire) &&
        !sendReply(process, process.epollPtr->procIndex, pid, peer))
        return false;
    if (!app.Server.instrumentationStarted.load(std::memory_order_acquire) ||
        !app.identity.startInstrumentation)
        return true;
    return sendStartLine(process, app.identity.startInstrumentation, app.identity.appIndex, pid, peer);
}

// Frees the record again; the socket stays open, it is the caller's to close.
int giveUpRecord(processInfo_t& process, epollPtr_t** slot) {
    {
        const VXGuard lock(process.sendMutex);
        const VXGuard closing(process.control.closeMutex);
        process.control.socket.store(nullptr, std::memory_order_release);
        process.controlWs.store(nullptr, std::memory_order_release);
    }
    process.controlFd = -1;
    process.pid.store(kFreePid, std::memory_order_release);
    *slot = nullptr;
    return -1;
}

// False, with the reason traced, when as many stand as may.
bool hasRoom(const char* what, std::int32_t count, std::int32_t most, const Registration& from) {
    if (count < most) return true;
    VX_TRACE(
        1, kControlThread, kError,
        "Registration refused, all %d %s are there (see the ceilings of the settings), pId = %d, '%s:%d'",
        most, what, from.tracedPid(), from.peer.ip(), from.peer.port());
    return false;
}

// The record's place for a pid: its own, the first free one, or a new one at the end (`isNew`). -1 without
// memory.
std::int32_t placeOf(vxApplication& app, const Registration& from, bool& isNew) {
    std::int32_t place = vxFindProcess(app, from.line.pid);
    isNew = false;
    if (place >= 0) {
        VX_TRACE(3, kControlThread, kInfo,
                 "Control connection received again from application with pId = %d, '%s:%d'",
                 from.tracedPid(), from.peer.ip(), from.peer.port());
        processInfo_t& process = *processAt(app, place);
        if (vxConnectionStands(process, VXConnection::kControl)) app.identity.activeProcesses.fetch_sub(1);
        vxCloseConnection(process, VXConnection::kControl, true);
        return place;
    }
    place = vxFindProcess(app, kFreePid);
    if (place >= 0) return place;
    isNew = true;
    place = app.identity.numProcess.load(std::memory_order_relaxed);
    if (!hasRoom("processes of the instance", place, VXProxy.ceilings.maxProcesses, from) ||
        !vxGrowProcessTable(app))
        return -1;
    VX_TRACE(3, kControlThread, kInfo, "Control connection received, pId = %d, '%s:%d'", from.tracedPid(),
             from.peer.ip(), from.peer.port());
    return vxProcessRecord(app, place) ? place : -1;
}

bool joinInstance(std::int32_t appIndex, Registration& from) {
    vxApplication& app = *instanceAt(appIndex);
    bool isNew = false;
    const std::int32_t place = placeOf(app, from, isNew);
    if (place >= 0 &&
        populateProcessInfo(appIndex, place, from.line.pid, from.slot, from.socket, isNew, from.wsi) == 0)
        return true;
    VX_TRACE(1, kControlThread, kError,
             "Control connection registration failed with proxy, pId = %d, '%s:%d'", from.tracedPid(),
             from.peer.ip(), from.peer.port());
    from.refuse();
    return false;
}

void traceNames(const VXIdentity_t& identity, const kwLocalStruct& line) {
    VX_TRACE(2, kControlThread, kInfo,
             "con_type:VXProxyInstance[app_index]->appName [%s], kwLocalStruct.appName [%s]",
             identity.appName, line.appName);
    VX_TRACE(2, kControlThread, kInfo,
             "con_type:VXProxyInstance[app_index]->tierName [%s], kwLocalStruct.tierName [%s]",
             identity.tierName, line.tierName);
    VX_TRACE(2, kControlThread, kInfo,
             "con_type:VXProxyInstance[app_index]->appServerName [%s], kwLocalStruct.appServerName [%s]",
             identity.appServerName, line.vxAppServerHost);
    VX_TRACE(2, kControlThread, kInfo,
             "con_type:VXProxyInstance[app_index]->agentName [%s], kwLocalStruct.agentName [%s]",
             identity.agentName, line.agentName);
}

vxApplication* newInstance(std::int32_t index, const kwLocalStruct& line) {
    vxApplication* app = index < 0 ? nullptr : vxNewApplication();
    if (!app) return nullptr;
    if (!setVXProxyInstance(*app) || !populateVXProxyInstance(*app, line, index, 0)) {
        freeclientdata(*app);
        vxFreeApplication(app);
        return nullptr;
    }
    traceNames(app->identity, line);
    return app;
}

// The first process of a new identity. It is answered once the collector has answered. The instance is
// published when it is complete.
void foundInstance(Registration& from) {
    const std::int32_t standing =
        VXProxy.numInstance.load(std::memory_order_relaxed) - 1;  // without the root
    const bool fits = hasRoom("instances", standing, VXProxy.ceilings.maxInstances, from);
    const std::int32_t index = fits ? vxFreeInstanceSlot() : -1;
    vxApplication* app = newInstance(index, from.line);
    if (!app) {
        from.refuse();
        return;
    }
    processInfo_t& process = *vxProcessRecord(*app, 0);
    vxAttachSocket(process, VXConnection::kControl, from.socket, from.wsi);
    *from.slot = process.epollPtr;
    app->identity.numProcess.store(1, std::memory_order_release);
    if (addInPoll(from.socket, from.wsi, process.epollPtr)) {
        app->identity.activeProcesses.store(1, std::memory_order_relaxed);
        VX_TRACE(1, kControlThread, kInfo, "Process Info populated for Application with pid = %d, '%s:%d'",
                 from.tracedPid(), from.peer.ip(), from.peer.port());
    } else {
        giveUpRecord(process, from.slot);
        from.refuse();
    }
    make_connection_with_vxc(*app, 0);
    VXProxyInstance.load()[index].store(app, std::memory_order_release);
    VXProxy.numInstance.fetch_add(1, std::memory_order_release);
}

void registerControl(Registration& from) {
    VX_TRACE(2, kControlThread, kInfo, "con_type:kwLocalStruct.appName [%s],tags:%s,attributes:%s",
             from.line.appName, from.line.tags, from.line.attributes);
    const std::int32_t index = findInstance(isControlInstance, from.line);
    if (index == 0) {
        foundInstance(from);
    } else if (joinInstance(index, from)) {
        make_connection_with_vxc(*instanceAt(index), 0);
    }
}

// The connections behind the control connection.
struct FurtherRow {
    int type;
    VXConnection kind;
    int level;
    const char *received, *registered, *refused;  // its name in the three trace lines
};
constexpr FurtherRow kFurtherRows[] = {
    {kConTypeData, VXConnection::kData, 1, "Data", "data", "data"},
    {kConTypeAS, VXConnection::kAutoSensor, 1, "Auto Sensor", "AS", "auto sensor"},
    {kConTypeDiscovery, VXConnection::kDiscovery, 2, "Discovery", "data", "data"},
};

void registerFurther(const FurtherRow& row, Registration& from) {
    const std::int32_t index = findInstance(isKnownInstance, from.line);
    if (index == 0) return;
    const vxApplication& app = *instanceAt(index);
    VX_TRACE(row.level, kControlThread, kInfo, "%s connection received, pId = %d, '%s:%d'", row.received,
             from.tracedPid(), from.peer.ip(), from.peer.port());
    const std::int32_t place = from.line.pid == kFreePid ? -1 : vxFindProcess(app, from.line.pid);
    if (place < 0) {
        VX_TRACE(1, kControlThread, kError,
                 "No control connection found for this %s connection request with pid '%d', '%s:%d'",
                 row.refused, from.tracedPid(), from.peer.ip(), from.peer.port());
        from.refuse();
        return;
    }
    processInfo_t& process = *processAt(app, place);
    vxAttachSocket(process, row.kind, from.socket, from.wsi);
    if (!addInPoll(from.socket, from.wsi, process.epollPtr)) {
        vxCloseConnection(process, row.kind, false);
        return;
    }
    *from.slot = process.epollPtr;
    VX_TRACE(1, kControlThread, kInfo, "Registered the %s connection socket for pid '%d', '%s:%d'",
             row.registered, from.tracedPid(), from.peer.ip(), from.peer.port());
}

}  // namespace

void parseProxyMsgReq(apr_socket_t* socket, char* fields, epollPtr_t** epollPtrSlot, int connectionType,
                      VXAgentWs* wsi) {
    kwLocalStruct line;
    vxParseRegistrationLine(fields, line);
    Registration from{socket, epollPtrSlot, line, wsi};
    if (connectionType == kConTypeControl) {
        if (line.pid == kFreePid) {  // marks a free record
            VX_TRACE(1, kControlThread, kError,
                     "Control connection registration failed with proxy, pId = %d, '%s:%d'", from.tracedPid(),
                     from.peer.ip(), from.peer.port());
            from.refuse();
            return;
        }
        registerControl(from);
        return;
    }
    for (const FurtherRow& row : kFurtherRows)
        if (row.type == connectionType) {
            registerFurther(row, from);
            return;
        }
    VX_TRACE(1, kControlThread, kError, "Unknown connection type received - %d", connectionType);
}

int populateProcessInfo(std::int32_t appIndex, std::int32_t procIndex, std::int64_t pid,
                        epollPtr_t** epollPtrSlot, apr_socket_t* socket, int addProcess, VXAgentWs* wsi) {
    vxApplication& app = *instanceAt(appIndex);
    processInfo_t& process = *vxProcessRecord(app, procIndex);
    const VXPeer peer(socket, wsi);
    process.firstWord = 0;
    process.pid.store(pid, std::memory_order_relaxed);
    vxAttachSocket(process, VXConnection::kControl, socket, wsi);
    if (!*epollPtrSlot) *epollPtrSlot = process.epollPtr;
    if (addProcess) app.identity.numProcess.fetch_add(1, std::memory_order_release);

    if (!tellWhatWasMissed(app, process, peer) || !addInPoll(socket, wsi, process.epollPtr))
        return giveUpRecord(process, epollPtrSlot);
    app.identity.activeProcesses.fetch_add(1, std::memory_order_relaxed);
    VX_TRACE(1, kControlThread, kInfo, "Process Info populated for Application with pid = %d, '%s:%d'",
             static_cast<int>(pid), peer.ip(), peer.port());
    return 0;
}

}  // namespace vx
