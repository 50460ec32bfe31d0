#include "commonlibc/proxyServer/vx_proxy_events.h"

#include <algorithm>

#include "commonlibc/proxyServer/vx_proxy_discovery.h"
#include "commonlibc/proxyServer/vx_proxy_poll.h"
#include "commonlibc/proxyServer/vx_proxy_read.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

// A connection that has an event.
struct Served {
    apr_socket_t* socket;
    epollPtr_t* address;
    vxApplication& app;
    processInfo_t& process;
    VXConnection kind;
    VXAgentWs* wsi;
    VXPeer peer{socket, wsi};

    int tracedPid() const { return static_cast<int>(process.pid.load(std::memory_order_relaxed)); }
};

// A WebSocket has handed over more than the buffer takes at once.
bool goesOn(const Served& from) {
    return from.wsi && !from.wsi->closing && from.wsi->inLength > 0;
}

int readLines(const Served& from, VXReadBuffer& buffer) {
    epollPtr_t* address = from.address;
    int result = readMessageFromSocket(from.socket, buffer, &address, from.wsi);
    while (result == kReadDone && goesOn(from))
        result = readMessageFromSocket(from.socket, buffer, &address, from.wsi);
    return result;
}

int readControlLines(const Served& from) {
    return readLines(from, VXProxy.controlBuf);
}

int readDiscoveryLines(const Served& from) {
    return readLines(from, VXProxy.discoveryBuf);
}

int readRecords(const Served& from) {
    const auto read = [&from] {
        return readDataFromSocket(from.socket, VXProxy.dataBuf, from.address->appIndex,
                                  from.address->procIndex, from.wsi);
    };
    int result = read();
    while (result == kReadDone && goesOn(from)) result = read();
    return result;
}

struct ConnectionRow {
    VXConnection kind;
    const char* name;
    const char* tag;
    int (*read)(const Served& from);
    int failureLevel;
};
constexpr ConnectionRow kConnectionRows[] = {
    {VXConnection::kControl, "Control", "CLIENT->CTRL_PROCESS", readControlLines, 1},
    {VXConnection::kData, "Data", "CLIENT->DATA_PROCESS", readRecords, 1},
    {VXConnection::kAutoSensor, "AS", "CLIENT->AS_PROCESS", readControlLines, 1},
    {VXConnection::kDiscovery, "DISCOVERY", "CLIENT->Temp_Connection", readDiscoveryLines, 3},
};

const ConnectionRow& rowOf(VXConnection kind) {
    return kConnectionRows[static_cast<std::size_t>(kind)];
}

void closeServed(Served& from) {
    if (from.kind == VXConnection::kControl) {
        vxReadLastRecords(*from.address);  // a process that exits ends all at once, records on their way
        closeAllConnectionsOfProcess(from.address->appIndex, from.address->procIndex);
        from.app.identity.activeProcesses.fetch_sub(1, std::memory_order_relaxed);
        return;
    }
    vxCloseConnection(from.process, from.kind, true);
    if (from.kind == VXConnection::kDiscovery) vxDiscoveryConnectionGone(from.app);
    constexpr VXConnection kLasting[] = {VXConnection::kControl, VXConnection::kData,
                                         VXConnection::kAutoSensor};
    if (std::none_of(std::begin(kLasting), std::end(kLasting),
                     [&](VXConnection kind) { return vxConnectionStands(from.process, kind); }))
        from.process.pid.store(kFreePid, std::memory_order_release);
}

// Such processes come and go by the request.
bool isSilent(const Served& from) {
    return from.kind != VXConnection::kDiscovery &&
           from.app.VXBCISetting.agentTypeCode.load(std::memory_order_relaxed) == kAgentPhp;
}

void hangUp(Served& from) {
    if (from.kind == VXConnection::kDiscovery)
        VX_TRACE(1, kControlThread, kInfo, "Received HANGUP event on unknown fd. Ignoring...");
    else if (!isSilent(from) && from.wsi)
        VX_TRACE(1, kControlThread, kInfo, "HANGUP received. (%s) [pid = %d]", rowOf(from.kind).name,
                 from.tracedPid());
    else if (!isSilent(from))
        VX_TRACE(1, kControlThread, kInfo, "HANGUP received. (%s) [pid = %d] ['%s':'%d']",
                 rowOf(from.kind).name, from.tracedPid(), from.peer.ip(), from.peer.port());
    if (from.kind == VXConnection::kData) vxReadLastRecords(*from.address);  // a reset follows its bytes
    closeServed(from);
}

void readServed(Served& from) {
    const ConnectionRow& row = rowOf(from.kind);
    VX_TRACE(3, kControlThread, kInfo, "%s '%s:%d'", row.tag, from.peer.ip(), from.peer.port());
    if (row.read(from) >= 0 || vxSocketClosed(from.socket)) return;
    if (!isSilent(from))
        VX_TRACE(row.failureLevel, kControlThread, kError,
                 "Read Failed (%s) [pid = %d] ['%s':'%d']. Closing connection.", row.name, from.tracedPid(),
                 from.peer.ip(), from.peer.port());
    closeServed(from);
}

// How many records there are below the instance that the pair names.
std::int32_t recordsOf(const epollPtr_t& address) {
    const bool appFits = address.appIndex >= 0 && address.appIndex < VXProxy.instanceTableSize;
    const vxApplication* app = appFits ? instanceAt(address.appIndex) : nullptr;
    return app ? app->identity.numProcess.load(std::memory_order_relaxed) : 0;
}

bool namesRecord(const epollPtr_t& address) {
    return address.procIndex >= 0 && address.procIndex < recordsOf(address);
}

// True when the pair names a record that exists.
bool isValid(const epollPtr_t& address, int index, int events) {
    if (namesRecord(address)) return true;
    VX_TRACE(1, kControlThread, kError,
             "Invalid epoll context data, appIndex = %d, procIndex = %d (numInstance = %d, numProcess = %d) "
             "i = %d, num = %d",
             address.appIndex, address.procIndex, VXProxy.numInstance.load(), recordsOf(address), index,
             events);
    return false;
}

void closeEntry(const apr_pollfd_t& event) {
    apr_socket_t* socket = event.desc.s;
    cleanAndRemoveSocket(socket, true);
}

void serve(const apr_pollfd_t& event, Served& from) {
    const bool ended = event.rtnevents & (APR_POLLHUP | APR_POLLERR);
    if (event.rtnevents & APR_POLLHUP)
        VX_TRACE(2, kControlThread, kInfo, "Received POLLHUP event");
    else if (ended)
        VX_TRACE(2, kControlThread, kInfo, "Received POLLERR event");
    if (!ended && !(event.rtnevents & APR_POLLIN)) {
        VX_TRACE(1, kControlThread, kWarning, "Received unknown event on socket, '%s:%d'", from.peer.ip(),
                 from.peer.port());
        return;
    }
    if (from.kind == VXConnection::kCount) {
        VX_TRACE(1, kControlThread, kWarning, "%s",
                 ended ? "Received HANGUP event on unknown fd. Ignoring..."
                       : "Received EPOLLIN event on unknown fd. Ignoring...");
        closeEntry(event);
    } else if (ended) {
        hangUp(from);
    } else {
        readServed(from);
    }
}

// Of a WebSocket whose pair names a record; its instance is made current.
Served servedBy(VXAgentWs& wsi) {
    vxApplication& app = *instanceAt(wsi.address->appIndex);
    vxSetCurrent(&app);
    processInfo_t& process = *processAt(app, wsi.address->procIndex);
    return {nullptr, wsi.address, app, process, vxConnectionOf(process, nullptr, &wsi), &wsi};
}

void traceMessage(const Served& from) {
    VX_TRACE(3, kControlThread, kInfo, "%s '%s:%d'", rowOf(from.kind).tag, from.peer.ip(), from.peer.port());
    if (from.kind != VXConnection::kData) return;
    constexpr std::size_t kShown = 10;
    VX_TRACE(3, kControlThread, kInfo, "Received for app %s, pid %d size:%d data:%.*s",
             from.app.identity.appName, from.tracedPid(), static_cast<int>(from.wsi->inLength),
             static_cast<int>(std::min(from.wsi->inLength, kShown)), from.wsi->in);
}

}  // namespace

void vxServeConnection(const apr_pollfd_t& event, int index, int count) {
    auto* address = static_cast<epollPtr_t*>(event.client_data);
    if (!isValid(*address, index, count)) {
        closeEntry(event);
        return;
    }
    vxApplication& app = *instanceAt(address->appIndex);
    vxSetCurrent(&app);
    processInfo_t& process = *processAt(app, address->procIndex);
    Served from{event.desc.s, address, app, process, vxConnectionOf(process, event.desc.s), nullptr};
    if (event.rtnevents & APR_POLLNVAL) {
        VX_TRACE(1, kControlThread, kError, "Invalid descriptor. Closing socket.");
        if (from.kind == VXConnection::kCount)
            closeEntry(event);
        else
            closeServed(from);
        return;
    }
    serve(event, from);
}

int vxServeWebSocket(VXAgentWs& wsi) {
    if (!namesRecord(*wsi.address)) {
        VX_TRACE(1, kControlThread, kError, "Invalid epoll context data, appIndex = %d,  procIndex = %d",
                 wsi.address->appIndex, wsi.address->procIndex);
        return -1;
    }
    Served from = servedBy(wsi);
    if (from.kind == VXConnection::kCount) return -1;
    traceMessage(from);
    const int result = rowOf(from.kind).read(from);
    if (wsi.closing) return -1;
    if (result >= 0) return 0;
    vxWebSocketGone(wsi);
    return -1;
}

bool vxIsStream(const VXAgentWs& wsi) {
    if (!wsi.address || !namesRecord(*wsi.address)) return false;
    const processInfo_t& process = *processAt(*instanceAt(wsi.address->appIndex), wsi.address->procIndex);
    const VXConnection kind = vxConnectionOf(process, nullptr, &wsi);
    return kind == VXConnection::kData || kind == VXConnection::kDiscovery;
}

void vxWebSocketGone(VXAgentWs& wsi) {
    if (!wsi.address || !namesRecord(*wsi.address)) return;
    Served from = servedBy(wsi);
    if (from.kind == VXConnection::kCount) {
        VX_TRACE(1, kControlThread, kInfo, "Received HANGUP event on unknown fd. Ignoring...");
        return;
    }
    hangUp(from);
}

}  // namespace vx
