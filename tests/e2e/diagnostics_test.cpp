// What the collector asks of agents, and its hand-over of instances, by the real programs.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/e2e_fixture.h"
#include "tests/support/raw_agent.h"

namespace vx::test {
namespace {

class Diagnostics : public EndToEnd {
protected:
    // Another collector beside the first, with a folder of its own.
    std::unique_ptr<Program> secondCollector(int port) const {
        Program::Setup setup;
        setup.arguments = {
            programPath("vxcollector"), "--listen", std::to_string(port), "--host", "127.0.0.1", "--out",
            dir.path() + "/second"};
        setup.outputFile = dir.path() + "/second.log";
        return std::make_unique<Program>(setup);
    }
    std::string secondStreams() const {
        std::string all;
        std::error_code missing;
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(dir.path() + "/second", missing))
            if (entry.is_regular_file()) all += fileText(entry.path().string());
        return all;
    }
    // Sends the order and waits until the agent has it.
    void order(const std::string& command, RawAgent& agent, const std::string& line) {
        collector->say(command);
        EXPECT_NE(agent.control().readLinesUpTo(line).back(), kNoLine) << traceText();
    }
    bool arrives(const std::string& kind, const std::string& text) const {
        return eventually([&] { return streams(kind).find(text) != std::string::npos; });
    }
};

TEST_F(Diagnostics, ThreadDumpsClassListsAndFilesFindTheirWay) {
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

    dir.write("proxy/.cache/raw/BTRuleConfig", "a rule\n");
    agent.control().send("vx_control_req:action=send_file;keyword=BTRuleConfig;\n");
    EXPECT_TRUE(agent.control()
                    .readLinesUpTo("vx_control_rep:")
                    .back()
                    .starts_with("vx_control_rep:action=file;keyword=BTRuleConfig%3Bsize%3D7%3Blmd%3D"));
    EXPECT_EQ(agent.control().readLine(), "a rule");
    agent.control().send("vx_control_req:action=send_file;keyword=../../config/vxsettings.conf;\n");
    EXPECT_TRUE(
        agent.control().readLinesUpTo("vx_control_rep:").back().starts_with("vx_control_rep:action=Failed"));
}

TEST_F(Diagnostics, ARerouteTakesTheInstanceAndItsAgentsToAnotherCollector) {
    startCollector();
    startService();
    const int port = freePort();
    const auto second = secondCollector(port);
    ASSERT_TRUE(second->outputHolds("listening on")) << second->output();
    RawAgent agent(proxyPort, "shop", 4711);
    ASSERT_TRUE(agent.start()) << traceText();

    collector->say("reroute 127.0.0.1 " + std::to_string(port));
    EXPECT_NE(agent.control().readLinesUpTo("vx_control_req:action=start_instrumentation", 20).back(),
              kNoLine)
        << traceText();
    EXPECT_TRUE(eventually([&] {
        const std::string text = secondStreams();
        return text.find("requestType=2") != std::string::npos && text.find("\n99,") != std::string::npos;
    })) << secondStreams()
        << traceText();
    EXPECT_NE(fileText(dir.path() + "/proxy/config/vxsettings.conf").find("vxcPort=" + std::to_string(port)),
              std::string::npos);
    EXPECT_TRUE(service->running());
}

}  // namespace
}  // namespace vx::test
