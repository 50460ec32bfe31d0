#include "commonlibc/control_reply.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>

#include "commonlibc/ServerHeartbeat.h"
#include "commonlibc/VXAgentLine.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXConnectMessages.h"
#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_buffer.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr const char* kReply = "vx_ctrl_msg_rep:result=";
constexpr const char* kReplyNotRunning = "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;";
constexpr const char* kReplyRunning = "vx_ctrl_msg_rep:result=Ok;status=RUNNING";
constexpr const char* kReplyOk = "vx_ctrl_msg_rep:result=Ok;";
constexpr const char* kFirstHeartbeat = "vx_control_req:action=reconnect;heartBeat";
constexpr const char* kSaasOk = "zor_saas_auth_agent_msg_rep:status=OK";
constexpr const char* kSaasError = "zor_saas_auth_agent_msg_rep:status=ERROR";
constexpr const char* kProcIndex = "procIndex=";

// Waits are for the system's poll, so they go by its clock: a wall clock that is set changes nothing.
using WaitClock = std::chrono::steady_clock;
constexpr std::int64_t kWaitStepUs = 1000000;
constexpr std::int64_t kReplyTimeUs = 20000000;  // as for a connection to come to stand
constexpr std::uint64_t kInstanceBase = 65536;   // also the modulus of the collector's index
constexpr int kInstanceShift = 46;
constexpr std::size_t kIndexFieldSize = 32;  // ";procIndex=%d\n"

struct TextFree {
    void operator()(char* text) const noexcept { VXLB_FREE(text, "text copy", -1); }
};
using OwnText = std::unique_ptr<char, TextFree>;

bool beginsWith(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// Copy of a line up to its newline; null without memory.
OwnText copyLine(const char* line) {
    OwnText copy(vxlb_strdup(line));
    if (copy) copy.get()[std::strcspn(copy.get(), "\n")] = '\0';
    return copy;
}

int refuse(const char* message) {
    const vxApplication& app = *vxCurrent();
    VX_TRACE(
        1, kControlThread, kError,
        "controlBreak Going to close control connection with server %s:%d due to invalid message receive "
        "%s",
        app.control.destinationIP, app.control.destinationPort, message);
    control_connection_cleanup();
    VX_TRACE(1, kControlThread, kError, "Control connection was closed. Invalid message receive,'%s'.",
             message);
    return kReplyRefused;
}

// Run state as the collector sees it. False for a reply that is not Ok.
bool takeRunState(Server_t& server, const char* line) {
    if (beginsWith(line, kReplyNotRunning)) {
        server.bciDataRunning = 0;
        server.asDataRunning = 0;
    } else if (beginsWith(line, kReplyRunning)) {
        server.bciDataRunning = 1;
    } else {
        return beginsWith(line, kReplyOk);
    }
    return true;
}

// The high part of every flowpath number of this instance.
void takeInstanceNumber(Server_t& server, const char* line) {
    const char* field = std::strstr(line, kProcIndex);
    if (!field) return;
    const auto index = static_cast<std::uint64_t>(keywordLong(field + std::strlen(kProcIndex)));
    server.flowPathInstanceInitialID =
        static_cast<std::int64_t>((index % kInstanceBase + kInstanceBase) << kInstanceShift);
}

int judgeOkReply(Server_t& server, const char* line) {
    int verdict = kReplyGoOn;
    if (parse_policy_from_clientMsg(line) != 0) {
        VX_TRACE(1, kControlThread, kError,
                 "controlBreak Control connection was closed due to parse_policy_from_clientMsg");
        control_connection_cleanup();
        verdict = kReplyRefused;
    } else if (setProtocolFromResponseMessage(line, control_connection_cleanup) != 0) {
        verdict = kReplyChangeProtocol;
    }
    takeInstanceNumber(server, line);
    return verdict;
}

// Processes that are to hear of the reply from here.
std::int32_t processesToReach(vxApplication& app, int verdict) {
    const VXGuard lock(app.identity.messageMutex);
    if (verdict == kReplyGoOn) app.Server.replyReceived = 1;
    return app.identity.numProcess;
}

void tellProcesses(vxApplication& app, const char* line, std::int32_t count) {
    const std::size_t length = std::strlen(line);
    const OwnText message(static_cast<char*>(VXLB_MALLOC(length + kIndexFieldSize, "text copy", -1)));
    if (!message) return;
    for (std::int32_t i = 0; i < count; ++i) {
        processInfo_t* process = processAt(app, i);
        if (!process || !vxHasControl(*process)) continue;
        VXWriter out(message.get(), length + kIndexFieldSize);
        out.bytes(line, length).text(";procIndex=").number(i).put('\n');
        vxSendToAgent(*process, message.get(), out.length());
    }
}

// False when the heartbeat has too few fields and the connection was given up.
bool takeFirstHeartbeat(vxApplication& app, const char* line) {
    app.control.lastHeartBeatTime = vxlb_steady_ms();
    const OwnText copy = copyLine(line);
    if (!copy) return true;
    vxRelayToAll(copy.get());
    if (takeConnectionStates(copy.get())) return true;
    VX_TRACE(1, kControlThread, kError,
             "controlBreak connection is closed from VXC due to 'num_fields' less than 3.");
    control_connection_cleanup();
    return false;
}

// Handled already: the splitter passes over zero bytes.
void blankLine(char* line) {
    std::memset(line, 0, std::strcspn(line, "\n") + 1);
}

int takeSaasAnswer(vxApplication& app, const char* text) {
    const OwnText copy = copyLine(text);
    if (copy && parseSAASClientMsg(copy.get()) == 1)
        VX_TRACE(1, kControlThread, kError, "Closing Control Connection with SAAS");
    VX_TRACE(1, kControlThread, kInfo,
             "Closing Control Connection with SAAS and going to make connection with VXC");
    control_connection_cleanup();
    controlSockBufReset(app);
    noteConnection(app);
    return kReplyGoOn;
}

int refuseSaas(const char* text) {
    const OwnText copy = copyLine(text);
    VX_TRACE(1, kControlThread, kError, "Error Received: '%s'", copy ? copy.get() : text);
    control_connection_cleanup();
    return kReplyGoOn;
}

// Empty lines and zero bytes in front are no part of an answer.
void skipEmptyLines(ctrlBufInfo_t* info) {
    while (info->readBytes > 0 && (*unreadBytes(info) == '\n' || *unreadBytes(info) == '\0')) {
        ++info->readOffset;
        --info->readBytes;
    }
}

bool holdsLine(ctrlBufInfo_t* info) {
    skipEmptyLines(info);
    return info->readBytes > 0 &&
           std::memchr(unreadBytes(info), '\n', static_cast<std::size_t>(info->readBytes));
}

// 0 when there is something to judge, else a code of the read.
int receiveLine(vxApplication& app, ctrlBufInfo_t* info, char* error) {
    const std::chrono::microseconds time(std::min(vx_word_get(app.VXSys.fileReadTimeout), kReplyTimeUs));
    const auto deadline = WaitClock::now() + time;
    while (!holdsLine(info)) {
        if (info->writeOffset >= kControlBufSize) return 0;
        if (linkStopAsked(app) || app.control.closeCtrlConFlag || WaitClock::now() >= deadline)
            return kSockFailed;
        const int count = fillControlBuffer(info, kWaitStepUs, error);
        if (count < 0) return count;
    }
    return 0;
}

int receiveFailed(vxApplication& app, ctrlBufInfo_t* info, int code) {
    if (code == kSockClosed) {
        VX_TRACE(1, kControlThread, kError, "Control connection closed by VX server.");
    } else {
        VX_TRACE(1, kControlThread, kError, "Read partial message '%s'.", unreadBytes(info));
    }
    controlSockBufReset(app);
    if (!proxyStopFlag) control_connection_cleanup();  // a plain stop leaves the run to its data thread
    return kReplyGoOn;
}

}  // namespace

int rec_control_con_rep_msg_from_vxc(ctrlBufInfo_t* info) {
    vxApplication& app = *vxCurrent();
    if (!info->read_socket_buf) return kReplyRefused;
    char error[kSockErrorSize] = "";
    const int code = receiveLine(app, info, error);
    return code < 0 ? receiveFailed(app, info, code) : handle_vxc_con_res_msg(info);
}

int rec_control_conn_response_lws(ctrlBufInfo_t* info) {
    vxApplication& app = *vxCurrent();
    char error[kSockErrorSize] = "";
    const int code = info->read_socket_buf ? receiveLine(app, info, error) : kSockFailed;
    if (code >= 0) return 0;
    receiveFailed(app, info, code);
    return 1;
}

int handle_vxc_con_res_msg(ctrlBufInfo_t* info) {
    vxApplication& app = *vxCurrent();
    char* text = unreadBytes(info);
    char* heartbeat = std::strstr(text, kFirstHeartbeat);
    if (heartbeat && !std::strchr(heartbeat, '\n')) heartbeat = nullptr;  // the rest is still to come
    const char* reply = std::strstr(text, kReply);
    if (reply && heartbeat && !std::strchr(reply, '\n')) reply = nullptr;
    const OwnText line = reply ? copyLine(reply) : nullptr;

    if (heartbeat) {
        if (!takeFirstHeartbeat(app, heartbeat)) return kReplyGoOn;
        blankLine(heartbeat);
        if (!reply) return kReplyGoOn;
    }
    if (beginsWith(text, kSaasOk)) return takeSaasAnswer(app, text);
    if (beginsWith(text, kSaasError)) return refuseSaas(text);
    if (line) return handleConnectReply(line.get());
    refuse(text);
    return kReplyGoOn;
}

bool isConnectReply(const char* line) {
    return beginsWith(line, kReply);
}

int handleConnectReply(char* line) {
    vxApplication& app = *vxCurrent();
    const int verdict = takeRunState(app.Server, line) ? judgeOkReply(app.Server, line) : refuse(line);
    tellProcesses(app, line, processesToReach(app, verdict));
    return verdict;
}

}  // namespace vx
