#include "commonlibc/VXProtocol.h"

#include <gtest/gtest.h>

#include <array>

#include "tests/support/home_fixture.h"

namespace vx {
namespace {

int cleanups = 0;
void countCleanup() {
    ++cleanups;
}

using Slots = std::array<int, 3>;
Slots firstThree(const std::int32_t (&slots)[kProtocolSlots]) {
    return {slots[0], slots[1], slots[2]};
}

class Protocol : public test::HomeFixture {
protected:
    // A reply as the collector sends it, to an agent that talks `active`.
    int answer(int active, const std::string& offer) {
        cleanups = 0;
        vxClearCollectorProtocols();
        app->control.ActiveAgentProtocolIndex = active;
        const std::string line = "vx_ctrl_msg_rep:result=Ok;status=RUNNING;" + offer + "\n";
        return setProtocolFromResponseMessage(line.c_str(), countCleanup);
    }
    int active() const { return app->control.ActiveAgentProtocolIndex; }
};

TEST_F(Protocol, AnAgentsListFillsSlotsTextAndPorts) {
    const struct {
        const char* list;
        Slots slots;
        const char* text;
        Slots ports;  // TCP (443 at first), WS, WSS
    } rows[] = {
        {"WSS:443,TCP:7000", {3, 1, 0}, "WSS:443,TCP:7000", {7000, 8, 443}},
        {"UDP:1,WS:80", {2, 0, 0}, "WS:80", {7, 80, 9}},
        {"TCP,WS:,WSS:x,TCP:70000,TCP:1", {1, 0, 0}, "TCP:1", {1, 8, 9}},
        {"TCP:1,TCP:2,TCP:3,WS:4", {1, 1, 1}, "TCP:1,TCP:2,TCP:3,WS:4", {3, 4, 9}},
        {",TCP", {3, 2, 1}, "WSS:9,WS:8,TCP:7", {7, 8, 9}},
        {"TCP:10001,TCP:10002,TCP:10003,TCP:10004,TCP:10005,TCP:10006",
         {1, 1, 1},
         "TCP:10001,TCP:10002,TCP:10003,TCP:10004,TCP:10005",
         {10006, 8, 9}},
    };
    for (const auto& row : rows) {
        upDateAgentSupportedProtocolData("WSS:9,WS:8,TCP:7");
        upDateAgentSupportedProtocolData(row.list);
        EXPECT_EQ(firstThree(app->collectors.supportedProtocolArray), row.slots) << row.list;
        EXPECT_STREQ(app->VXSys.supportedProtocolsString, row.text);
        EXPECT_EQ((Slots{getProtocolPort(1), getProtocolPort(2), getProtocolPort(3)}), row.ports) << row.list;
    }
}

TEST_F(Protocol, TheCollectorsOrderDecides) {
    upDateAgentSupportedProtocolData("TCP:7000,WSS:7443");
    EXPECT_EQ(answer(kProtocolTCP, "supportedProtocols=WS:7001,WSS:7443,TCP:7000;"), 1);
    EXPECT_EQ(active(), kProtocolWSS);
    EXPECT_EQ(cleanups, 1);
    EXPECT_EQ(getProtocolPort(kProtocolWS), 7001);

    EXPECT_EQ(answer(kProtocolWSS, "supportedProtocols=WSS:7443;"), 0) << "nothing changes";
    EXPECT_EQ(active(), kProtocolWSS);
    EXPECT_EQ(cleanups, 0);
}

TEST_F(Protocol, ASwitchBetweenProtocolsOnOnePortIsNotSeen) {
    upDateAgentSupportedProtocolData("TCP:7000,WS:7000");
    EXPECT_EQ(answer(kProtocolTCP, "supportedProtocols=WS:7000;"), 0);
    EXPECT_EQ(active(), kProtocolWS);
}

TEST_F(Protocol, AReplyWithoutAProtocolOfTheAgentEndsInProtocol0) {
    upDateAgentSupportedProtocolData("TCP:7000");
    for (const char* offer : {"", "supportedProtocols=WSS:443;", "supportedProtocols=,;",
                              "a=1;b=2;c=3;d=4;e=5;f=6;g=7;h=8;supportedProtocols=TCP:7000;"}) {
        EXPECT_EQ(answer(kProtocolTCP, offer), 1) << offer;
        EXPECT_EQ(active(), 0) << offer;
    }
}

}  // namespace
}  // namespace vx
