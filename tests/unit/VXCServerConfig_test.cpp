#include "commonlibc/VXCServerConfig.h"

#include <gtest/gtest.h>

#include "tests/support/by_name.h"
#include "tests/support/home_fixture.h"

namespace vx {
namespace {

// The state of a failover decision, in one comparable line.
std::string outcome(const vxApplication& app, const VXCollectorRecord& chosen) {
    return std::string(chosen.host) + ":" + std::to_string(chosen.port) + " state " +
           std::to_string(vxCollectorAt(0).state) + std::to_string(vxCollectorAt(1).state) + " master " +
           std::to_string(app.collectors.activeOnMaster) + " pending " +
           std::to_string(app.collectors.dr_switch_pending);
}

struct ChoiceCase {
    const char* name;
    bool hasBackup;
    int clusterMode, envConfigured, activeOnMaster, pending, limitHit;
    const char* outcome;
};
class EndpointChoice : public test::HomeFixture, public testing::WithParamInterface<ChoiceCase> {};

TEST_P(EndpointChoice, FollowsModeAndPendingSwitch) {
    const ChoiceCase& row = GetParam();
    setPrimaryVXC("m", 1);
    if (row.hasBackup) setBackupVXC("b", 2);
    vxSetCollectorState(0, 1);
    app->collectors.clusterMode = row.clusterMode;
    app->VXBCISetting.envConfigured = row.envConfigured;
    app->collectors.activeOnMaster = row.activeOnMaster;
    app->collectors.dr_switch_pending = static_cast<std::uint8_t>(row.pending);
    EXPECT_EQ(outcome(*app, vxChooseEndpoint(row.limitHit != 0)), row.outcome);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, EndpointChoice,
    testing::ValuesIn<ChoiceCase>({
        {"no_switch_pending", true, 0, 0, 0, 0, 0, "m:1 state 10 master 1 pending 0"},
        {"switch_on_master_goes_to_backup", true, 0, 0, 1, 1, 0, "b:2 state 01 master 0 pending 0"},
        {"switch_on_backup_goes_to_master", true, 0, 0, 0, 1, 0, "m:1 state 10 master 1 pending 0"},
        {"switch_without_backup_stays", false, 0, 0, 1, 1, 0, "m:1 state 10 master 1 pending 0"},
        {"cluster_takes_reroute_target", true, 1, 0, 0, 0, 0, "b:2 state 11 master 0 pending 0"},
        {"cluster_goes_back_at_the_limit", true, 1, 0, 0, 0, 1, "m:1 state 10 master 1 pending 0"},
        {"environment_outweighs_cluster", true, 1, 1, 0, 0, 0, "m:1 state 10 master 1 pending 0"},
    }),
    test::byName);

class Collectors : public test::HomeFixture {};

TEST_F(Collectors, TheNextIndexStaysBelowBothCounts) {
    VXCollectors_t& all = app->collectors;
    struct {
        int configured, from, to;
    } rows[] = {{1, 0, 0}, {2, 0, 1}, {2, 1, 0}, {9, 4, 0}, {9, 3, 4}};
    for (const auto& row : rows) {
        all.num_vxc_config = row.configured;
        all.activeVXCIndex = row.from;
        lookup_for_next_vxc();
        EXPECT_EQ(all.activeVXCIndex, row.to) << row.configured << " from " << row.from;
    }
}

TEST_F(Collectors, AFailedRetryMovesOnOnlyWithFailover) {
    setPrimaryVXC("m", 1);
    setBackupVXC("b", 2);
    setVXCHost("m");
    vxFinishCollectorRecords();
    ASSERT_EQ(app->collectors.dr_enabled, 1);
    vxSetCollectorState(0, 1);
    connection_retry_failed();
    EXPECT_STREQ(get_active_vxc().host, "b");
    EXPECT_EQ(vxCollectorAt(0).state, 0);
    EXPECT_EQ(vxCollectorAt(1).state, 1);

    app->collectors.dr_enabled = 0;
    connection_retry_failed();
    EXPECT_STREQ(get_active_vxc().host, "m");
}

TEST_F(Collectors, ClearedRecordsAndForeignIndicesAreZero) {
    setPrimaryVXC("m", 1);
    clear_vxc_server_setting();
    vxSetCollectorPort(5, 1);
    vxSetCollectorState(-1, 1);
    for (const int index : {-1, 0, 4, 5}) {
        EXPECT_STREQ(vxCollectorAt(index).host, "") << index;
        EXPECT_EQ(vxCollectorAt(index).port, 0) << index;
    }
}

struct PolicyCase {
    const char* name;
    std::string reply;
    int answer;
    int drEnabled, pending, state;
    int retryCount, missCount, rounds;
    long long interval;
};
class Policy : public test::HomeFixture, public testing::WithParamInterface<PolicyCase> {};

TEST_P(Policy, IsReadFromTheReply) {
    const PolicyCase& row = GetParam();
    VXControlState_t& control = app->control;
    control.retryCount = 3;
    control.heartBeatMissCount = 10;
    control.heartBeatRounds = 6;
    control.retryInterval = kDefaultRetryIntervalUs;
    app->collectors.dr_enabled = 1;
    vxSetCollectorState(0, 1);

    EXPECT_EQ(parse_policy_from_clientMsg(row.reply.c_str()), row.answer);
    EXPECT_EQ(app->collectors.dr_enabled, row.drEnabled);
    EXPECT_EQ(app->collectors.dr_switch_pending, row.pending);
    EXPECT_EQ(vxCollectorAt(0).state, row.state);
    EXPECT_EQ(control.retryCount, row.retryCount);
    EXPECT_EQ(control.retryInterval, row.interval);
    EXPECT_EQ(control.heartBeatMissCount, row.missCount);
    EXPECT_EQ(control.heartBeatRounds, row.rounds);
}

const std::string kOk = "vx_ctrl_msg_rep:result=Ok;status=RUNNING;";
INSTANTIATE_TEST_SUITE_P(
    Replies, Policy,
    testing::ValuesIn<PolicyCase>({
        {"complete", kOk + "state=1;retryPolicy=5%30%4%60;ProtoVersion=1;\n", 0, 1, 0, 1, 5, 4, 6, 30000000},
        {"fourth_value_in_rounds", kOk + "state=2;retryPolicy=5%30%4%95;ProtoVersion=1;", 0, 1, 0, 2, 5, 4, 9,
         30000000},
        {"short_policy_keeps_the_rest", kOk + "state=1;retryPolicy=5;ProtoVersion=1;", 0, 1, 0, 1, 5, 10, 6,
         60000000},
        {"numbers_below_1_keep_the_former", kOk + "state=1;retryPolicy=0%0%-1%5;ProtoVersion=1;", 0, 1, 0, 1,
         3, 10, 6, 60000000},
        {"huge_numbers_are_held", kOk + "state=257;retryPolicy=900%2147483647;ProtoVersion=1;", 0, 1, 0, 255,
         255, 10, 6, 2147483647000000},
        {"one_part_missing", kOk + "state=1;ProtoVersion=1;", 0, 0, 0, 1, 3, 10, 6, 60000000},
        {"behind_the_fifth_field", kOk + "a=1;b=2;state=1;retryPolicy=5%30%4%60;ProtoVersion=1;", 0, 0, 0, 1,
         3, 10, 6, 60000000},
        {"behind_512_bytes", kOk + "a=" + std::string(512, 'x') + ";state=0;", 0, 0, 0, 1, 3, 10, 6,
         60000000},
        {"state_0_refuses", kOk + "state=0;retryPolicy=5%30%4%60;ProtoVersion=1;", 1, 1, 1, 0, 3, 10, 6,
         60000000},
        {"nothing", "", 1, 1, 0, 1, 3, 10, 6, 60000000},
        {"only_separators", ";;;", 1, 1, 0, 1, 3, 10, 6, 60000000},
    }),
    test::byName);

}  // namespace
}  // namespace vx
