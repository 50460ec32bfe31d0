#include "commonlibc/ServerReply.h"

#include <cstring>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_outbox.h"
#include "commonlibc/lws_handler.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kReplySize = 1024;
constexpr const char* kStarting = "vx_control_rep:action=start_instrumentation;status=starting;result=Ok;\n";
constexpr const char* kStopping = "vx_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n";
constexpr const char* kModified = "vx_control_rep:action=modify;result=Ok;\n";
constexpr const char* kModifyRefused =
    "vx_control_rep:result=Error:<Unable to process modify message because of stop instrument recieved or "
    "startInstrument not recieved.\n";

void sendText(const char* text) {
    controlConnectionSendBuffer(text, std::strlen(text));
}

}  // namespace

void controlConnectionSendBuffer(const char* text, std::size_t length) {
    vxApplication& app = *vxCurrent();
    char error[kSockErrorSize] = "";
    const auto count = static_cast<std::int32_t>(length);
    const bool sent = vxOutboxFinish(app) &&
                      (app.control.lws_active
                           ? send_control_data_via_lws_socket(text, count) == 0
                           : vxlb_send_n_bytes(app.control.controlSocket.get(), text, count, error) >= 0);
    if (sent) return;
    VX_TRACE(1, kControlThread, kError, "Unable to send '%.*s' to VXC. Error = %s", count, text, error);
    app.control.closeCtrlConFlag = 1;  // a part of it may have gone out
}

void addStartWarning(const char* before, const char* name, const char* after) {
    Server_t& server = vxCurrent()->Server;
    const std::size_t held = std::strlen(server.warnings);
    VXWriter out(server.warnings + held, sizeof(server.warnings) - held);
    if (held) out.text("; ");
    out.text(before).text(name).text(after).terminate();
}

void sendResponseToVXC() {
    Server_t& server = vxCurrent()->Server;
    char reply[kReplySize];
    VXWriter out(reply, sizeof(reply) - 1);
    out.text(kStarting);
    if (*server.warnings) out.text(server.warnings).endLine();
    server.warnings[0] = '\0';
    controlConnectionSendBuffer(reply, out.length());
}

void sendResponseOfStopInstrumentation() {
    sendText(kStopping);
}

void sendResponseRunTimeChange() {
    sendText(kModified);
}

void sendModifyRefused() {
    sendText(kModifyRefused);
}

}  // namespace vx
