// Connections that are lost at every stage, on both sides of the service.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/support/e2e_fixture.h"
#include "tests/support/raw_agent.h"
#include "tests/support/record_stream.h"
#include "tests/support/tcp_relay.h"

namespace vx::test {
namespace {

using Kind = Fault::Kind;

constexpr long kMaxGrowthKb = 2048 + kSanitizerGrowthKb;

class Loss : public EndToEnd {
protected:
    // True once so many transactions have come that some must have been sent after the call.
    bool deliversAgain() { return arrive(arrived() + 61); }
    // Whatever is lost and whenever, the collector gets whole records, and the service holds no more than
    // before.
    void survives(TcpRelay& relay, const std::vector<Fault>& faults) {
        const auto agent = startLoad({"--rate", "300", "--duration", "1000"});
        ASSERT_TRUE(deliversAgain() && linksStand()) << traceText();
        const int descriptors = descriptorsOf(service->pid());
        for (std::size_t i = 0; i < faults.size(); ++i) {
            SCOPED_TRACE("fault " + std::to_string(i));
            const int struck = relay.struck();
            relay.add(faults[i]);
            relay.endAll(i % 2 == 0);
            ASSERT_TRUE(eventually([&] { return relay.struck() > struck; })) << traceText();
            EXPECT_TRUE(deliversAgain()) << traceText();
        }
        EXPECT_TRUE(service->running());
        EXPECT_EQ(summaryOfStreams().unreadable, 0u);
        EXPECT_TRUE(eventually([&] { return descriptorsOf(service->pid()) <= descriptors; }))
            << descriptors << " before, " << descriptorsOf(service->pid());
    }
};

struct Stage {
    const char* name;
    std::vector<Fault> faults;  // one connection each, one after the other
};
class LossOfTheCollector : public Loss, public testing::WithParamInterface<Stage> {};

TEST_P(LossOfTheCollector, IsFollowedByAConnectionThatDelivers) {
    startCollector();
    TcpRelay relay(collectorPort);
    collectorRelayPort = relay.port();
    startService();
    survives(relay, GetParam().faults);
}

const std::string kControl = "vx_ctrl_msg_req:", kData = "vx_data_msg_req:";
const std::string kStart = "action=start_instrumentation";
INSTANTIATE_TEST_SUITE_P(
    At, LossOfTheCollector,
    testing::ValuesIn<Stage>({
        {"connect",
         {{.kind = Kind::kCut, .times = 2},
          {.kind = Kind::kReset},
          {.kind = Kind::kCut, .connection = kControl, .bytes = 40}}},
        {"the_reply",
         {{.kind = Kind::kReset, .way = Way::kDown, .connection = kControl},
          {.kind = Kind::kCut, .way = Way::kDown, .connection = kControl, .bytes = 30},
          {.kind = Kind::kCut, .way = Way::kDown, .connection = kControl, .behind = "state=1"}}},
        {"the_start_line",
         {{.kind = Kind::kReset, .way = Way::kDown, .connection = kControl, .behind = kStart},
          {.kind = Kind::kCut, .way = Way::kDown, .connection = kControl, .behind = kStart, .bytes = 20},
          {.kind = Kind::kCut, .way = Way::kUp, .connection = kControl, .behind = kStart, .bytes = 5}}},
        {"a_heartbeat",
         {{.kind = Kind::kReset, .way = Way::kDown, .connection = kControl, .behind = "heartBeat 2"},
          {.kind = Kind::kCut, .way = Way::kDown, .connection = kControl, .behind = "heartBeat 2"}}},
        {"the_data_line",
         {{.kind = Kind::kCut, .connection = kData},
          {.kind = Kind::kReset, .connection = kData, .bytes = 20}}},
        {"a_record",
         {{.kind = Kind::kCut, .connection = kData, .behind = "\n4,", .bytes = 7},
          {.kind = Kind::kReset, .connection = kData, .bytes = 20000}}},
        {"replay", {{.kind = Kind::kReset, .connection = kData, .behind = "\n5,", .bytes = 3}}},
    }),
    byName);

class LossOfAgents : public Loss {};

TEST_F(LossOfAgents, AtEveryStageIsFollowedByConnectionsThatDeliver) {
    startCollector();
    startService();
    TcpRelay relay(proxyPort);
    proxyRelayPort = relay.port();
    survives(
        relay,
        {
            {.kind = Kind::kCut},
            {.kind = Kind::kReset, .connection = kControl, .bytes = 40},
            {.kind = Kind::kCut, .way = Way::kDown, .connection = kControl, .bytes = 10},
            {.kind = Kind::kReset, .way = Way::kDown, .connection = kControl, .behind = kStart, .bytes = 9},
            {.kind = Kind::kCut, .connection = kData},
            {.kind = Kind::kReset, .connection = kData, .bytes = 50},
            {.kind = Kind::kCut, .connection = kData, .behind = "\n^", .bytes = 9},
            {.kind = Kind::kReset, .connection = kData, .bytes = 100000},
            {.kind = Kind::kSlow, .connection = kControl, .piece = 3},
            {.kind = Kind::kSlow, .way = Way::kDown, .connection = kControl, .piece = 50},
        });
}

// Processes of the same application come and go, each with a pid of its own.
TEST_F(LossOfAgents, ThousandsOfShortProcessesLeaveNothingBehind) {
    startCollector();
    startService();
    constexpr int kRounds = 4, kPerRound = 600;
    std::int64_t pid = 100000, flowpath = std::int64_t{65536} << 46;
    int highest = 0, descriptors = 0;
    long resident = 0;
    RawAgent first(proxyPort, "shop", 1);
    ASSERT_TRUE(first.start() && linksStand());
    for (int round = 0; round < kRounds; ++round) {
        for (int i = 0; i < kPerRound; ++i) {
            RawAgent agent(proxyPort, "shop", ++pid);
            ASSERT_TRUE(agent.start()) << "process " << i << " of round " << round << "\n" << traceText();
            highest = std::max(highest, agent.procIndex());
            ++flowpath;
            const std::string start = startFrame(flowpath, "/a", 1);
            const std::string torn = start.substr(0, static_cast<std::size_t>(i) % start.size());
            agent.openData().send("\n" + start + entryFrame(flowpath, "A.b", 2) + endFrame(flowpath, 200, 5) +
                                  torn);
            if (i % 3 == 0) agent.data().reset();  // the others end in order
        }
        ASSERT_TRUE(service->running());
        if (round == 0) {
            descriptors = descriptorsOf(service->pid());
            resident = residentKb(service->pid());
        }
    }
    EXPECT_LT(highest, 100) << "records of processes that have gone are not used again";
    EXPECT_LT(residentKb(service->pid()) - resident, kMaxGrowthKb);
    EXPECT_TRUE(eventually([&] { return descriptorsOf(service->pid()) <= descriptors + 2; }))
        << descriptors << " then, " << descriptorsOf(service->pid());
    EXPECT_TRUE(arrive(1));
}

}  // namespace
}  // namespace vx::test
