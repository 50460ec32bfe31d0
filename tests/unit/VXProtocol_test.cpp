#include "commonlibc/VXProtocol.h"

#include <array>

#include "tests/support/home_fixture.h"

namespace vx {
namespace {

using Slots = std::array<int, 3>;
Slots firstThree(const std::int32_t (&slots)[kProtocolSlots]) {
    return {slots[0], slots[1], slots[2]};
}

class Protocol : public test::HomeFixture {};

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
        {",TCP", {3, 2, 1}, "WSS:9,WS:8,TCP:7", {7, 8, 9}},  // refused whole
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

}  // namespace
}  // namespace vx
