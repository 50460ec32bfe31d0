#include "commonlibc/vx_agent.h"

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "commonlibc/vx_upcalls.h"

namespace vx::test {
namespace {

// Calls upward that no unit serves yet; a unit that is added takes its names off this list.
std::istringstream stillEmpty(R"(
    HandleVexalineMessage SendMessageOnUDPSocket VXThreadMonitorInit
    addMethodInHash check_captureAppLog_thread clearHeaderMetaDataFlags create_lws_as_connection
    create_lws_control_connection create_lws_data_connection
    freeTagHashLists freeUDPConnections get_file_from_VXC_lws
    get_inst_profile_lws handleUploadDownload initVXDynamicSettings
    initVXHttpReqRespCaptureSettings kill_lws_as_connection kill_lws_data_connection
    parseAutoInstrClientMsgAndSendResp parseBackendRuleFile parseDDClientMsgAndSendResp
    parseDynamicSettingsFile
    rec_control_con_response_lws resetAppLogSettings resolveTransactionTag sendHttpHdrRep
    sendHttpHdrReq send_as_data_via_lws_socket send_control_data_via_lws_socket send_data_via_lws_socket
    setHttpHashMapNode setblackListForDebugSession start_control_connection_service
    updateMethodInHash vxProxyInitLws
)");

TEST(Upcalls, WhatIsStillEmptyIsWrittenDown) {
    vxFillUpcalls();
    std::set<std::string> empty;
    for (std::size_t i = 0; i < static_cast<std::size_t>(VXUpcallName::kCount); ++i) {
        const auto name = static_cast<VXUpcallName>(i);
        if (vxUpcallEmpty(name)) empty.insert(vxUpcallText(name));
    }
    using Names = std::istream_iterator<std::string>;
    EXPECT_EQ(empty, (std::set<std::string>{Names(stillEmpty), Names()}));
    vxUpcalls = VXUpcalls{};
}

}  // namespace
}  // namespace vx::test
