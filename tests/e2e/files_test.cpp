// Files that the collector hands out, between the real programs: folder, collector, service, agent.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/e2e_fixture.h"
#include "tests/support/raw_agent.h"

namespace vx::test {
namespace {

constexpr std::size_t kLarge = 10 * 1024 * 1024;

class HandedOutFiles : public EndToEnd {
protected:
    void startAll(std::vector<std::string> more = {}) {
        std::filesystem::create_directories(dir / "files");
        more.insert(more.end(), {"--files", dir / "files"});
        startCollector(more);
        startService();
    }
    // Beside and renamed, as an operator is told to.
    void writeFile(const std::string& name, const std::string& content) {
        const std::string beside = dir.write("files/.new", content);
        std::filesystem::create_directories(std::filesystem::path(dir / ("files/" + name)).parent_path());
        std::filesystem::rename(beside, dir / ("files/" + name));
    }
    // How often the service has asked for a file.
    int requests(const std::string& keyword) {
        return occurrences(streams("control"), "action=send_file;keyword=" + keyword + ";");
    }
    int profileRequests(const std::string& name) {
        return occurrences(streams("control"), ";instrProfile=" + name + "\n");
    }
    // True when the service answers the agent with this first line, up to its date, and this content. An
    // agent that the machine holds up while it reads loses its connection, comes again and asks again.
    bool answers(const std::string& request, const std::string& first, const std::string& content) {
        for (int tries = 0; tries < 10; ++tries) {
            if (tries > 0 && !agent.start()) continue;
            agent.control().send("vx_control_req:action=send_" + request + "\n");
            const std::string head = agent.control().readLinesUpTo("vx_control_rep:action=").back();
            if (!head.starts_with("vx_control_rep:action=" + first)) return false;
            if (agent.control().readBytes(content.size()) == content) return true;
            if (!agent.control().ended(0)) return false;
        }
        return false;
    }

    RawAgent agent{proxyPort, "shop", 4711};
};

TEST_F(HandedOutFiles, AreFetchedOnceAndAgainAfterAChangeAndServedToAgents) {
    std::string large;
    while (large.size() < kLarge) large += "line " + std::to_string(large.size()) + "\n";
    writeFile("VXEntryPointsFile", "m|a.b()|HTTP_CALLOUT|2\n");
    writeFile("vxMethodMonFile", "m|a.c()|alias\n");
    writeFile("vxModuleFile", large);
    writeFile("instrProfile/one.txt", "m|a|d|1|0\n");
    writeFile("instrProfile/two.txt", "m|a|e|1|0\n");
    startAll();
    ASSERT_TRUE(agent.start()) << traceText();
    ASSERT_TRUE(started()) << traceText();
    const auto once = [this] {
        return requests("VXEntryPointsFile") == 1 && requests("vxModuleFile") == 1 &&
               profileRequests("one.txt") == 1 && profileRequests("two.txt") == 1;
    };
    EXPECT_TRUE(once() && requests("vxMethodMonFile") == 1) << streams("control");

    ASSERT_TRUE(stopRun());
    collector->say("start");
    ASSERT_TRUE(started(2));
    EXPECT_TRUE(once() && requests("vxMethodMonFile") == 1) << streams("control");

    writeFile("vxMethodMonFile", "m|a.c()|other\nm|a.f()|new\n");
    ASSERT_TRUE(collector->outputHolds("vx_control_rep:action=modify;result=Ok"));
    EXPECT_TRUE(once() && requests("vxMethodMonFile") == 2) << streams("control");

    EXPECT_TRUE(answers("file;keyword=vxMethodMonFile;", "file;keyword=vxMethodMonFile%3Bsize%3D26%3Blmd",
                        "m|a.c()|other\nm|a.f()|new\n"));
    EXPECT_TRUE(answers("file;keyword=vxModuleFile;",
                        "file;keyword=vxModuleFile%3Bsize%3D" + std::to_string(large.size()) + "%3Blmd",
                        large));
    EXPECT_TRUE(answers("instrumentation_profile;instrProfile=C:\\x\\one.txt",
                        "instrumentation_profile;instrProfile=one.txt;size=10;lmd", "m|a|d|1|0\n"));
}

TEST_F(HandedOutFiles, ThatAreMissingAreReportedAndACriticalOneEndsTheConnection) {
    const std::string keywords = dir.write("keywords",
                                           "bciInstrSessionPct=100\nvxPoolFile=vxPoolFile|3|1\n"
                                           "VXEntryPointsFile=VXEntryPointsFile|23|1\n");
    startAll({"--keywords", keywords});
    RawAgent waiting(proxyPort, "shop", 4712);
    std::thread start([&waiting] { EXPECT_TRUE(waiting.start(60)); });
    EXPECT_TRUE(collector->outputHolds("control connection of Tier/host7/shop/raw (instance 1) disconnected"))
        << traceText();
    EXPECT_EQ(occurrences(collector->output(), "start_instrumentation;status=starting"), 0);
    EXPECT_GE(requests("vxPoolFile"), 2);
    EXPECT_GE(requests("VXEntryPointsFile"), 2);
    writeFile("VXEntryPointsFile", "m|a.b()|HTTP_CALLOUT|2\n");
    EXPECT_TRUE(started()) << traceText();
    EXPECT_TRUE(collector->outputHolds("vxPoolFile' file base keyword")) << collector->output();
    start.join();
}

}  // namespace
}  // namespace vx::test
