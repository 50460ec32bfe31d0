#include "commonlibc/VXCServerConfig.h"

#include <sstream>
#include <string>

#include "tests/support/home_fixture.h"

namespace vx {
namespace {

class Collectors : public test::HomeFixture {};

TEST_F(Collectors, ThePolicyIsReadFromTheReply) {
    const std::string ok = "vx_ctrl_msg_rep:result=Ok;status=RUNNING;";
    const std::string kept = "retry 3/60 s misses 10/6";
    const struct {
        std::string reply;
        int answer;
        std::string outcome;
    } rows[] = {
        {ok + "state=1;retryPolicy=5%30%4%60;ProtoVersion=1;\n", 0, "state 1 dr 1/0 retry 5/30 s misses 4/6"},
        {ok + "state=2;retryPolicy=5%30%4%95;ProtoVersion=1;", 0, "state 2 dr 1/0 retry 5/30 s misses 4/9"},
        {ok + "state=1;retryPolicy=5;ProtoVersion=1;", 0, "state 1 dr 1/0 retry 5/60 s misses 10/6"},
        {ok + "state=1;retryPolicy=0%0%-1%5;ProtoVersion=1;", 0, "state 1 dr 1/0 " + kept},
        {ok + "state=257;retryPolicy=900%2147483647;ProtoVersion=1;", 0,
         "state 255 dr 1/0 retry 255/2147483647 s misses 10/6"},
        {ok + "state=1;ProtoVersion=1;", 0, "state 1 dr 0/0 " + kept},  // one part is missing
        {ok + "a=1;b=2;state=1;retryPolicy=5%30%4%60;ProtoVersion=1;", 0, "state 1 dr 0/0 " + kept},
        {ok + "a=" + std::string(512, 'x') + ";state=0;", 0, "state 1 dr 0/0 " + kept},
        {ok + "state=0;retryPolicy=5%30%4%60;ProtoVersion=1;", 1, "state 0 dr 1/1 " + kept},
        {"", 1, "state 1 dr 1/0 " + kept},
        {";;;", 1, "state 1 dr 1/0 " + kept},
    };
    VXControlState_t& control = app->control;
    VXCollectors_t& collectors = app->collectors;
    for (const auto& row : rows) {
        control.retryCount = 3;
        control.heartBeatMissCount = 10;
        control.heartBeatRounds = 6;
        control.retryInterval = kDefaultRetryIntervalUs;
        collectors.dr_enabled = 1;
        collectors.dr_switch_pending = 0;
        vxSetCollectorState(0, 1);
        EXPECT_EQ(parse_policy_from_clientMsg(row.reply.c_str()), row.answer) << row.reply;
        std::ostringstream outcome;
        outcome << "state " << int{vxCollectorAt(0).state} << " dr " << int{collectors.dr_enabled} << '/'
                << int{collectors.dr_switch_pending} << " retry " << int{control.retryCount} << '/'
                << control.retryInterval / 1000000 << " s misses " << control.heartBeatMissCount << '/'
                << control.heartBeatRounds;
        EXPECT_EQ(outcome.str(), row.outcome) << row.reply;
    }
}

}  // namespace
}  // namespace vx
