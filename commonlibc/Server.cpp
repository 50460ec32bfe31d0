#include "commonlibc/Server.h"

#include <array>
#include <string_view>

#include "commonlibc/ServerDiagnostics.h"
#include "commonlibc/ServerHeartbeat.h"
#include "commonlibc/ServerMetadata.h"
#include "commonlibc/ServerReroute.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"

namespace vx {

namespace {

struct LineRow {
    std::string_view prefix;
    void (*handle)(char* line);
};

// Order decides: the first row whose prefix fits takes the line.
constexpr auto kLineRows = std::to_array<LineRow>({
    {kStartPrefix, handleStartInstrumentation},
    {kHeartbeatPrefix, handleHeartbeat},
    {"vx_meta_data_req:action=send_meta_data;", handleMetaDataRequest},
    {"vxc_req:action=discover_loaded_classes", handleDiscoveryRequest},
    {"vx_control_req:action=stop_instrumentation", handleStopInstrumentation},
    {kModifyPrefix, handleModify},
    {"vx_control_req:action=reroute_ctrl_con", handleReroute},
    {"download_file_req", [](char* line) { VX_UPCALL(handleUploadDownload, line); }},
    {"upload_file_req", [](char* line) { VX_UPCALL(handleUploadDownload, line); }},
    {"vx_meta_data_req:action=auto_instr_status;",
     [](char* line) { VX_UPCALL(parseAutoInstrClientMsgAndSendResp, line); }},
    {"Dynamic_Diagnostics_req:action=ai_status;",
     [](char* line) { VX_UPCALL(parseDDClientMsgAndSendResp, line); }},
    {"vx_meta_data_req:action=get_thread_dump;", handleThreadDumpRequest},
    {"VexalineMessage 2.0;", [](char* line) { VX_UPCALL(HandleVexalineMessage, line); }},
});

}  // namespace

void handleReceivedClientMessageFromVXCollector(char* line) {
    vxApplication& app = *vxCurrent();
    app.control.heartBeatSent = 0;
    app.control.lastHeartBeatTime = vxlb_steady_ms();
    const std::string_view text(line);
    for (const LineRow& row : kLineRows) {
        if (!text.starts_with(row.prefix)) continue;
        row.handle(line);
        return;
    }
}

}  // namespace vx
