// What the collector asks of agents, and its hand-over of instances, by the real programs.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tests/support/e2e_fixture.h"
#include "tests/support/raw_agent.h"

namespace vx::test {
namespace {

class Diagnostics : public EndToEnd {
protected:
    // Sends the order and waits until the agent has it.
    void order(const std::string& command, RawAgent& agent, const std::string& line) {
        collector->say(command);
        EXPECT_NE(agent.control().readLinesUpTo(line).back(), kNoLine) << traceText();
    }
    bool arrives(const std::string& kind, const std::string& text) const {
        return eventually([&] { return streams(kind).find(text) != std::string::npos; });
    }
};

TEST_F(Diagnostics, ThreadDumpsAndClassListsFindTheirWay) {
    startCollector();
    startService();
    RawAgent agent(proxyPort, "shop", 4711);
    ASSERT_TRUE(agent.start()) << traceText();

    order("thread-dump", agent, "vx_meta_data_req:action=get_thread_dump;");
    agent.control().send("thread_dump:Thread 1$  at main()$\n");
    EXPECT_TRUE(arrives("control", "Thread 1\n  at main()\n")) << traceText();

    order("discover", agent, "vxc_req:action=discover_loaded_classes");
    FakePeer list = connectTo(proxyPort);
    std::string line = agent.openDataLine();
    list.send(line.replace(0, line.find(':'), "agent_post_data_req"));
    list.send("class one\nclass two\nclasses=2;totalTimeTaken=3;\n");
    EXPECT_TRUE(arrives("discovery", "agent_post_data_req:action=discover_loaded_classes;Id="))
        << traceText();
    EXPECT_TRUE(arrives("discovery", "class one\nclass two\nclasses=2;totalTimeTaken=3;\n")) << traceText();
}

TEST_F(Diagnostics, ARerouteTakesTheInstanceAndItsAgentsToAnotherCollector) {
    startCollector();
    startService();
    RawAgent agent(proxyPort, "shop", 4711);
    ASSERT_TRUE(agent.start()) << traceText();
    const auto first = std::move(collector);
    collectorPort = freePort();
    streamsDir = dir / "second";
    startCollector();
    first->say("reroute 127.0.0.1 " + std::to_string(collectorPort));
    EXPECT_NE(agent.control().readLinesUpTo("vx_control_req:action=start_instrumentation").back(), kNoLine)
        << traceText();
    EXPECT_TRUE(collector->outputHolds("data connection of Tier/host7/shop/raw")) << traceText();
    EXPECT_TRUE(arrives("control", "requestType=2"));
    EXPECT_TRUE(arrives("data", "\n99,"));
    EXPECT_NE(fileText(dir.path() + "/proxy/config/vxsettings.conf")
                  .find("vxcPort=" + std::to_string(collectorPort)),
              std::string::npos);
    EXPECT_TRUE(service->running());
}

}  // namespace
}  // namespace vx::test
