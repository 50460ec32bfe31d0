#include "commonlibc/flowpath/VXFlowpathIdentity.h"

#include <sstream>

#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

class FlowpathIdentity : public FlowpathFixture {
protected:
    void setMasks(std::int64_t time, std::int64_t digits, std::int64_t sequence) {
        app->Server.timeStampMask = time;
        app->Server.seqNoDigits = digits;
        app->Server.seqNumMask = sequence;
    }
};

TEST_F(FlowpathIdentity, MasksAreTakenWholeOrNotAtAll) {
    const struct {
        std::string text;
        std::vector<std::int64_t> masks;
    } rows[] = {
        {"9%200x1F%204%20a%20x%20y%20z%20w", {0x1F, 4, 10}},  // eight fields
        {"0%20FF%208", {1, 2, 3}},
        {"0%20FFFFFFFFFFFFFFFFF%208%20FF", {INT64_MAX, 8, 0xFF}},
    };
    for (const auto& row : rows) {
        setMasks(1, 2, 3);
        parse_flowpath_mask(std::string(row.text).data());
        const Server_t& server = app->Server;
        EXPECT_EQ(std::vector<std::int64_t>({server.timeStampMask, server.seqNoDigits, server.seqNumMask}),
                  row.masks);
    }
}

TEST_F(FlowpathIdentity, InstanceIsTimeAndSequenceAndBaseAdded) {
    setMasks(0xFFFF, 8, 0xFF);
    app->Server.flowPathInstanceInitialID = std::int64_t{65537} << 46;
    const std::int64_t base = (std::int64_t{65537} << 46) + ((kNowMs & 0xFFFF) << 8);
    EXPECT_EQ(generate_flowpath_instance(), base + 1);
    app->Server.flowpathCounter = 255;
    EXPECT_EQ(generate_flowpath_instance(), base);
    setMasks(0xFFFF, 8 + 64, -1);
    EXPECT_EQ(generate_flowpath_instance(), base + 257);  // the sequence carries into the time
}

TEST_F(FlowpathIdentity, CookiesFillTheSessionOrLeaveIt) {
    const std::pair<std::string, const char*> rows[] = {
        // session, test run, start, captured, count, category, tier
        {"5-6-7-1-x-y-3-8-9-10", "5 6 7 1 4 9 21"},
        {"5-6-7-1-x-y-2147483647", "5 6 7 1 -2147483648 9 21"},
        {std::string(1023, '1') + "-6", "9223372036854775807 0 0 0 0 9 21"},  // cut
        {"5-6-7-1-x-y-3-8-9-10-11", "0 0 0 0 0 0 0"},
    };
    vx_word_set(app->VXBCISetting.tierID, 21);
    for (const auto& [cookie, expected] : rows) {
        vxTD* slot = takeSlot();
        parseVXCookieStr(cookie.c_str(), slot);
        std::ostringstream members;
        members << slot->sessionFP << ' ' << slot->testRunId << ' ' << slot->sessionStartTime << ' '
                << int{slot->sessionCaptured} << ' ' << slot->totalFpcount << ' '
                << int{slot->sessionCategory} << ' ' << slot->cookieTierId;
        EXPECT_EQ(members.str(), expected) << cookie;
        EXPECT_EQ(slot->parentFP, slot->sessionFP);
    }
    vxTD* slot = takeSlot();
    parseKWCookieStr("1-2-3", slot);
    EXPECT_TRUE(slot->kwSessionId == 0 && slot->kwPageId == 0);
    parseKWCookieStr("11-2-3-44-5", slot);
    EXPECT_TRUE(slot->kwSessionId == 11 && slot->kwPageId == 44);
}

}  // namespace
}  // namespace vx::test
