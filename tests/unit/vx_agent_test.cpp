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
    VXThreadMonitorInit addMethodInHash
    check_captureAppLog_thread freeTagHashLists
    handleUploadDownload initVXDynamicSettings
    parseAutoInstrClientMsgAndSendResp parseBackendRuleFile parseDDClientMsgAndSendResp
    parseDynamicSettingsFile resetAppLogSettings resolveTransactionTag
    setblackListForDebugSession updateMethodInHash
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
