#include "commonlibc/flowpath/VXManageTierCallOut.h"

#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

class TierCallout : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        setTierName("my_tier");
        setAppServerName("srv");
        setAppName("app");
        slot = takeSlot();
    }
    int chain(std::string text) { return setTierCallOut(slot, text.data()); }

    vxTD* slot = nullptr;
};

TEST_F(TierCallout, TheFirstSightOfACallerIsAnnouncedOnceThereIsRoom) {
    EXPECT_EQ(chain("55_66_7_i%5Fd_x_y_ti&#95;er_inst_srv%5F_more_and_more"), 0);
    EXPECT_EQ(chain("56_67_8_i%5Fd_other_z_ti&#95;er_inst_srv%5F"), 0);
    EXPECT_TRUE(slot->prevFlowpath == 56 && slot->prevTierTime == 67);
    EXPECT_STREQ(slot->prevTierSeq, "8");
    EXPECT_EQ(chain("57_68__bare"), 0);
    EXPECT_EQ(flowpathRecords(),
              (Records{"91,i_d,ti_er,my_tier,inst,srv%5F,srv,app,NA", "91,bare,,my_tier,,,srv,app,NA"}));
    closeDumping(*app);
    app->Server.testRunRunning = 1;
    EXPECT_EQ(chain("1_2_3_late"), 0) << "there is no room to announce it";
    openDumping(*app);
    for (int flowpath = 0; flowpath < 2; ++flowpath) EXPECT_EQ(chain("4_5_6_late"), 0);
    EXPECT_EQ(flowpathRecords(), (Records{"91,late,,my_tier,,,srv,app,NA"}));
}

TEST_F(TierCallout, FieldsThatAreMissingOrEmptyAreToldApart) {
    const struct {
        const char* text;
        int answer;
        std::int64_t flowpath, time;
        const char* sequence;
    } rows[] = {
        {"55_66_7", -1, 0, 0, nullptr},    {"55__7_NA", -1, 55, 0, nullptr}, {"_66_7_NA", 0, 55, 66, "7"},
        {"____________", -1, 55, 66, "7"}, {"x_-5_s t_", 0, 0, -5, "s t"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(chain(row.text), row.answer) << row.text;
        EXPECT_TRUE(slot->prevFlowpath == row.flowpath && slot->prevTierTime == row.time) << row.text;
        EXPECT_STREQ(slot->prevTierSeq, row.sequence) << row.text;
    }
    EXPECT_TRUE(flowpathRecords().empty());
    EXPECT_EQ(app->tiers.callerCount, 1U) << "the key of callers that are not to be announced";
}

TEST_F(TierCallout, LongTextsAreCutAndAFullTableAnnouncesNobody) {
    VXProxy.ceilings.maxCallers = 2;
    const std::string field(5000, 'f');
    EXPECT_EQ(chain("1_2_" + field + "_" + field + "_x_y_" + field + "_" + field + "_" + field), 0);
    const std::string cut = field.substr(0, 1023);
    EXPECT_EQ(slot->prevTierSeq, cut) << "each slot may hold one";
    const std::string all = "91," + cut + "," + cut + ",my_tier," + cut + "," + cut + ",srv,app,NA";
    EXPECT_EQ(flowpathRecords(), Records{all});

    for (const char* caller : {"1_2_3_b", "1_2_3_c", "1_2_3_d", "1_2_3_b"}) EXPECT_EQ(chain(caller), 0);
    EXPECT_EQ(flowpathRecords().size(), 2U);
    vxDropBusyList();
    EXPECT_EQ(app->tiers.callersTraced, 0) << "the next run tells again";
}

}  // namespace
}  // namespace vx::test
