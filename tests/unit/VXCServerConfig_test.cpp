#include "commonlibc/VXCServerConfig.h"

#include <gtest/gtest.h>

#include <array>

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

class Collectors : public test::HomeFixture {};

TEST_F(Collectors, TheChoiceFollowsModeAndPendingSwitch) {
    const struct {
        bool hasBackup;
        int clusterMode, envConfigured, activeOnMaster, pending, limitHit;
        const char* outcome;
    } rows[] = {
        {true, 0, 0, 0, 0, 0, "m:1 state 10 master 1 pending 0"},
        {true, 0, 0, 1, 1, 0, "b:2 state 01 master 0 pending 0"},
        {true, 0, 0, 0, 1, 0, "m:1 state 10 master 1 pending 0"},
        {false, 0, 0, 1, 1, 0, "m:1 state 10 master 1 pending 0"},
        {true, 1, 0, 0, 0, 0, "b:2 state 11 master 0 pending 0"},  // the reroute target
        {true, 1, 0, 0, 0, 1, "m:1 state 10 master 1 pending 0"},
        {true, 1, 1, 0, 0, 0, "m:1 state 10 master 1 pending 0"},  // the environment outweighs the cluster
    };
    for (const auto& row : rows) {
        clear_vxc_server_setting();
        setPrimaryVXC("m", 1);
        if (row.hasBackup) setBackupVXC("b", 2);
        vxSetCollectorState(0, 1);
        app->collectors.clusterMode = row.clusterMode;
        app->VXBCISetting.envConfigured = row.envConfigured;
        app->collectors.activeOnMaster = row.activeOnMaster;
        app->collectors.dr_switch_pending = static_cast<std::uint8_t>(row.pending);
        EXPECT_EQ(outcome(*app, vxChooseEndpoint(row.limitHit != 0)), row.outcome) << &row - rows;
    }
}

TEST_F(Collectors, ClearedRecordsAndForeignIndicesAreZero) {
    setPrimaryVXC("m", 1);
    clear_vxc_server_setting();
    vxSetCollectorPort(5, 1);
    vxSetCollectorState(-1, 1);
    for (const int index : {-1, 0, 4, 5}) EXPECT_STREQ(vxCollectorAt(index).host, "") << index;
}

TEST_F(Collectors, ThePolicyIsReadFromTheReply) {
    const std::string ok = "vx_ctrl_msg_rep:result=Ok;status=RUNNING;";
    const struct {
        std::string reply;
        int answer, drEnabled, pending, state, retryCount, missCount, rounds;
        long long interval;
    } rows[] = {
        {ok + "state=1;retryPolicy=5%30%4%60;ProtoVersion=1;\n", 0, 1, 0, 1, 5, 4, 6, 30000000},
        {ok + "state=2;retryPolicy=5%30%4%95;ProtoVersion=1;", 0, 1, 0, 2, 5, 4, 9, 30000000},
        {ok + "state=1;retryPolicy=5;ProtoVersion=1;", 0, 1, 0, 1, 5, 10, 6, 60000000},
        {ok + "state=1;retryPolicy=0%0%-1%5;ProtoVersion=1;", 0, 1, 0, 1, 3, 10, 6, 60000000},
        {ok + "state=257;retryPolicy=900%2147483647;ProtoVersion=1;", 0, 1, 0, 255, 255, 10, 6,
         2147483647000000},
        {ok + "state=1;ProtoVersion=1;", 0, 0, 0, 1, 3, 10, 6, 60000000},  // one part is missing
        {ok + "a=1;b=2;state=1;retryPolicy=5%30%4%60;ProtoVersion=1;", 0, 0, 0, 1, 3, 10, 6, 60000000},
        {ok + "a=" + std::string(512, 'x') + ";state=0;", 0, 0, 0, 1, 3, 10, 6, 60000000},
        {ok + "state=0;retryPolicy=5%30%4%60;ProtoVersion=1;", 1, 1, 1, 0, 3, 10, 6, 60000000},
        {"", 1, 1, 0, 1, 3, 10, 6, 60000000},
        {";;;", 1, 1, 0, 1, 3, 10, 6, 60000000},
    };
    for (const auto& row : rows) {
        VXControlState_t& control = app->control;
        control.retryCount = 3;
        control.heartBeatMissCount = 10;
        control.heartBeatRounds = 6;
        control.retryInterval = kDefaultRetryIntervalUs;
        app->collectors.dr_enabled = 1;
        app->collectors.dr_switch_pending = 0;
        vxSetCollectorState(0, 1);
        EXPECT_EQ(parse_policy_from_clientMsg(row.reply.c_str()), row.answer) << row.reply;
        EXPECT_EQ(app->collectors.dr_enabled, row.drEnabled) << row.reply;
        EXPECT_EQ(app->collectors.dr_switch_pending, row.pending) << row.reply;
        EXPECT_EQ(vxCollectorAt(0).state, row.state) << row.reply;
        EXPECT_EQ(control.retryCount, row.retryCount) << row.reply;
        EXPECT_EQ(control.retryInterval, row.interval) << row.reply;
        EXPECT_EQ(control.heartBeatMissCount, row.missCount) << row.reply;
        EXPECT_EQ(control.heartBeatRounds, row.rounds) << row.reply;
    }
}

}  // namespace
}  // namespace vx
