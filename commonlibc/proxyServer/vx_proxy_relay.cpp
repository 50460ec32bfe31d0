#include "commonlibc/proxyServer/vx_proxy_relay.h"

#include <algorithm>
#include <cstring>

#include "commonlibc/NIODataDispatcher.h"
#include "commonlibc/ServerDiagnostics.h"
#include "commonlibc/proxyServer/vx_proxy_discovery.h"
#include "commonlibc/proxyServer/vx_proxy_files.h"
#include "commonlibc/proxyServer/vx_proxy_poll.h"
#include "commonlibc/proxyServer/vx_proxy_registration.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

// A line of an identified connection.
struct AgentLine {
    char* text;
    const char* prefix;
    apr_socket_t* socket;
    epollPtr_t* address;
    vxApplication& app;
    processInfo_t& process;
    VXAgentWs* wsi;
    VXPeer peer{socket, wsi};

    char* behindPrefix() const { return text + std::strlen(prefix); }
};

int tracedPid(const AgentLine& line) {
    return static_cast<int>(line.process.pid.load(std::memory_order_relaxed));
}

// What follows `key`, cut before the first of `ends`; null without the key.
char* textBehind(char* line, const char* key, const char* ends) {
    char* value = std::strstr(line, key);
    if (!value) return nullptr;
    value += std::strlen(key);
    value[std::strcspn(value, ends)] = '\0';
    return value;
}

bool takeAcknowledgement(AgentLine& line) {
    VX_TRACE(0, kControlThread, kInfo, "'%s' received for pid = %d, '%s:%d'", line.text, tracedPid(line),
             line.peer.ip(), line.peer.port());
    return true;
}

bool takeFileRequest(AgentLine& line) {
    if (char* name = textBehind(line.text, "keyword=", ";")) statAndSendFileContent(name, line.address, 0);
    return true;
}

bool takeProfileRequest(AgentLine& line) {
    if (char* name = textBehind(line.text, "instrProfile=", "\n"))
        statAndSendFileContent(name, line.address, 1);
    return true;
}

// A piece of a class list, while the collector waits for one. When it does no longer, the agent learns it by
// the end of its discovery connection.
bool takeDiscoveryLine(AgentLine& line) {
    if (!VXProxy.proxyMode) return false;
    const VXForwarded result = vxForwardDiscoveryLine(line.app, line.text);
    if (result == VXForwarded::kLost &&
        vxConnectionOf(line.process, line.socket, line.wsi) == VXConnection::kDiscovery)
        vxCloseConnection(line.process, VXConnection::kDiscovery, true);
    return result != VXForwarded::kNotTaken;
}

bool takeGCDump(AgentLine& line) {
    char* text = line.behindPrefix();
    const std::size_t length = std::strlen(text);
    text[length] = '\n';  // in place of the terminator
    dumpASData(text, static_cast<std::int64_t>(length) + 1);
    text[length] = '\0';
    return true;
}

bool takeThreadDump(AgentLine& line) {
    std::replace(line.text, line.text + std::strlen(line.text), '$', '\n');
    sendThreadDataToVXC(nullptr, line.behindPrefix(), nullptr, kThreadDumpSize);
    return true;
}

bool takeLogLine(AgentLine& line) {
    VX_TRACE(1, kControlThread, kInfo, "'%s' received for pid = %d, '%s:%d'", line.text, tracedPid(line),
             line.peer.ip(), line.peer.port());
    VX_TRACE(1, kAgentLog, kInfo, "\n<agentLogs>\n%s\n</agentLogs>", line.text);
    return true;
}

// In this order; a row that answers false leaves the line to the next ones.
struct LineRow {
    const char* prefix;
    bool (*take)(AgentLine& line);
};
constexpr LineRow kLineRows[] = {
    {"vx_ctrl_msg_rep:result", takeAcknowledgement},
    {"vx_control_req:action=send_file;keyword=", takeFileRequest},
    {"vx_control_req:action=send_instrumentation_profile;", takeProfileRequest},
    {"", takeDiscoveryLine},
    {"auto_sensor_GCDump:", takeGCDump},
    {"thread_dump:", takeThreadDump},
    {"", takeLogLine},
};

struct RegistrationRow {
    const char* prefix;
    int type;
};
constexpr RegistrationRow kRegistrationRows[] = {
    {"vx_ctrl_msg_req:", kConTypeControl},
    {"vx_data_msg_req:", kConTypeData},
    {"auto_sensor_thread_hotspot_data_req:", kConTypeAS},
    {"agent_post_data_req:", kConTypeDiscovery},
};

bool beginsWith(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

void traceRegistration(const RegistrationRow& row, const char* line, const VXPeer& peer) {
    if (row.type == kConTypeControl)
        VX_TRACE(1, kControlThread, kInfo, "%s ... '%s:%d,%s'", line, peer.ip(), peer.port(), row.prefix);
    else if (row.type != kConTypeDiscovery)
        VX_TRACE(2, kControlThread, kInfo, "%s ... '%s:%d'", line, peer.ip(), peer.port());
}

void registerConnection(apr_socket_t* socket, char* line, epollPtr_t** slot, VXAgentWs* wsi) {
    for (const RegistrationRow& row : kRegistrationRows) {
        if (!beginsWith(line, row.prefix)) continue;
        traceRegistration(row, line, VXPeer(socket, wsi));
        parseProxyMsgReq(socket, line + std::strlen(row.prefix), slot, row.type, wsi);
        if (row.type == kConTypeDiscovery && *slot) vxOpenDiscovery(*instanceAt((*slot)->appIndex));
        return;
    }
}

}  // namespace

void processReceivedMsg(apr_socket_t* socket, char* line, epollPtr_t** epollPtrSlot, VXAgentWs* wsi) {
    if (!*epollPtrSlot) {
        registerConnection(socket, line, epollPtrSlot, wsi);
        return;
    }
    vxApplication& app = *instanceAt((*epollPtrSlot)->appIndex);
    vxSetCurrent(&app);
    processInfo_t& process = *processAt(app, (*epollPtrSlot)->procIndex);
    AgentLine agentLine{line, "", socket, *epollPtrSlot, app, process, wsi};
    for (const LineRow& row : kLineRows) {
        if (!beginsWith(line, row.prefix)) continue;
        agentLine.prefix = row.prefix;
        if (row.take(agentLine)) return;
    }
}

}  // namespace vx
