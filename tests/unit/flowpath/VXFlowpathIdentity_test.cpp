#include "commonlibc/flowpath/VXFlowpathIdentity.h"

#include <climits>

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
        const char* text;
        std::int64_t time, digits, sequence;
    } rows[] = {
        {"0%203FFFFFFFFF%208%20FF", 0x3FFFFFFFFF, 8, 0xFF},
        {"9%200x1F%204%20a%20x%20y%20z%20w", 0x1F, 4, 10},  // eight fields
        {"0%20FF%208", 1, 2, 3},
        {"", 1, 2, 3},
        {"0%20FFFFFFFFFFFFFFFFF%208%20FF", INT64_MAX, 8, 0xFF},
    };
    for (const auto& row : rows) {
        setMasks(1, 2, 3);
        std::string text = row.text;
        parse_flowpath_mask(text.data());
        EXPECT_EQ(app->Server.timeStampMask, row.time) << row.text;
        EXPECT_EQ(app->Server.seqNoDigits, row.digits) << row.text;
        EXPECT_EQ(app->Server.seqNumMask, row.sequence) << row.text;
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
    setMasks(0, 8, -1);
    app->Server.flowPathInstanceInitialID = INT64_MAX;
    EXPECT_EQ(generate_flowpath_instance(), INT64_MIN + 257);
}

TEST_F(FlowpathIdentity, VXCookieFillsTheSessionOrLeavesIt) {
    const std::string longNumber(1023, '1');
    const struct {
        std::string text;
        bool accepted;
        std::int64_t session, testRun, start;
        std::int32_t captured, count;
    } rows[] = {
        {"5-6-7-1-x-y-3-8-9-10", true, 5, 6, 7, 1, 4},
        {"5", true, 5, 0, 0, 0, 0},
        {"5-6-7-1-x-y-2147483647", true, 5, 6, 7, 1, INT_MIN},
        {longNumber + "-6", true, INT64_MAX, 0, 0, 0, 0},  // cut
        {"5-6-7-1-x-y-3-8-9-10-11", false, 0, 0, 0, 0, 0},
        {"---", false, 0, 0, 0, 0, 0},
        {"", false, 0, 0, 0, 0, 0},
    };
    vx_word_set(app->VXBCISetting.tierID, 21);
    for (const auto& row : rows) {
        vxTD* slot = takeSlot();
        parseVXCookieStr(row.text.c_str(), slot);
        EXPECT_EQ(slot->sessionFP, row.session) << row.text;
        EXPECT_EQ(slot->parentFP, row.session) << row.text;
        EXPECT_EQ(slot->testRunId, row.testRun) << row.text;
        EXPECT_EQ(slot->sessionStartTime, row.start) << row.text;
        EXPECT_EQ(slot->sessionCaptured, row.captured) << row.text;
        EXPECT_EQ(slot->totalFpcount, row.count) << row.text;
        EXPECT_EQ(slot->sessionCategory, row.accepted ? 9 : 0) << row.text;
        EXPECT_EQ(slot->cookieTierId, row.accepted ? 21 : 0) << row.text;
    }
}

TEST_F(FlowpathIdentity, KWCookieNeedsFourFields) {
    vxTD* slot = takeSlot();
    for (const char* refused : {"", "1-2-3"}) parseKWCookieStr(refused, slot);
    EXPECT_TRUE(slot->kwSessionId == 0 && slot->kwPageId == 0);
    parseKWCookieStr("11-2-3-44-5", slot);
    EXPECT_TRUE(slot->kwSessionId == 11 && slot->kwPageId == 44);
}

}  // namespace
}  // namespace vx::test
