// The main job over WS and WSS, also with peers that are not ours.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/support/e2e_fixture.h"
#include "tests/support/nginx_proxy.h"

namespace vx::test {
namespace {

const std::string kPython = "/usr/bin/python3", kScripts = VX_SOURCE_DIR "/tests/support/";

class WebSocketsBehind : public EndToEnd {
protected:
    // One of the scripts beside the fixtures, once it says `ready`.
    std::unique_ptr<Program> script(std::vector<std::string> arguments, const std::string& ready) {
        arguments.insert(arguments.begin(), kPython);
        arguments[1] = kScripts + arguments[1];
        auto program = std::make_unique<Program>(
            Program::Setup{arguments, {}, dir / arguments[1].substr(kScripts.size())});
        EXPECT_TRUE(program->outputHolds(ready)) << program->output();
        return program;
    }
};

class WebSockets : public WebSocketsBehind, public testing::WithParamInterface<const char*> {};

// Runs, a file that the collector hands out, processes that come and go, a collector that returns: as over
// TCP.
TEST_P(WebSockets, DeliverEverythingOnBothSidesOfTheService) {
    collectorWay = agentWay = GetParam();
    dir.write("files/VXEntryPointsFile", "Db|Db.query()|DB_CALLOUT|2\n" + std::string(100000, '#') + "\n");
    startCollector({"--files", dir / "files"});
    startService();
    deliver(300, {"--processes", "2", "--rate", "1000"});
    ASSERT_TRUE(
        collector->outputHolds("asks for a file: vx_control_rep:action=file;keyword=VXEntryPointsFile"))
        << collector->output();
    const auto agent = startLoad({"--app", "stays", "--rate", "1", "--duration", "1000"});
    ASSERT_TRUE(arrive(delivered + 1));
    collector->say("thread-dump");
    EXPECT_TRUE(collector->outputHolds("Threads of process"));
    ASSERT_TRUE(stopRun(2)) << traceText();
    collector->say("start");
    EXPECT_TRUE(started(4));
    const std::uint64_t before = arrived();
    const auto load = startLoad({"--transactions", "100", "--duration", "100"});
    EXPECT_EQ(load->wait(150), 0) << load->output();
    EXPECT_TRUE(arrive(before + 100)) << traceText();
    EXPECT_EQ(summaryOfStreams().unreadable, 0u);
    collector->signal(SIGKILL);
    collector->wait();
    streamsDir = dir / "streams of the second";
    startCollector();
    EXPECT_TRUE(started(2)) << traceText();
    EXPECT_TRUE(arrive(5)) << "the agent that stayed\n" << traceText();
}

// A collector and an agent's way by the same other implementation, which checks what it gets.
TEST_P(WebSockets, OfAnotherMakingUnderstandOurs) {
    collectorWay = agentWay = GetParam();
    const bool tls = collectorWay == "WSS";
    std::filesystem::create_directories(streamsDir);
    const TestCertificate own;
    std::vector<std::string> arguments = {"ws_collector.py", std::to_string(collectorPort), streamsDir};
    if (tls) arguments.insert(arguments.end(), {own.certificate, own.key});
    collector = script(arguments, "listening");
    startService();
    const int port = freePort();
    const std::string url = (tls ? "wss" : "ws") + std::string("://127.0.0.1:") + std::to_string(proxyPort);
    const auto relay = script({"ws_agent_relay.py", std::to_string(port), url}, "relaying");
    agentWay = "TCP";  // as far as the relay
    proxyRelayPort = port;
    RawAgent first(port, "shop", 1);  // what comes before the link stands is lost
    ASSERT_TRUE(first.start() && collector->outputHolds("data connection, path")) << collector->output();
    const auto load =
        startLoad({"--processes", "2", "--transactions", "200", "--rate", "500", "--duration", "100"});
    ASSERT_EQ(load->wait(150), 0) << load->output() << traceText();
    EXPECT_TRUE(arrive(400)) << arrived() << collector->output() << traceText();
    const collector::Summary summary = summaryOfStreams();
    EXPECT_EQ(summary.transactions, 400u);
    EXPECT_EQ(summary.unreadable, 0u);
    EXPECT_TRUE(
        collector->outputHolds("control connection, path /collector/vx/shop/Tier/host7?tierAttributes=NA&"))
        << collector->output();
    service->signal(SIGTERM);
    EXPECT_EQ(service->wait(), 0);
    EXPECT_EQ(collector->output().find("ended badly"), std::string::npos) << collector->output();
}

INSTANTIATE_TEST_SUITE_P(By, WebSockets, testing::Values("WS", "WSS"),
                         [](const auto& one) { return std::string(one.param); });

// Its certificate and name are checked, too, as an operator can ask for.
TEST_F(WebSocketsBehind, PassAnNginxThatEndsTls) {
    const TestCertificate own;
    NginxProxy front(collectorPort, own);
    collectorWay = "WS";
    serviceWay = "WSS";
    collectorRelayPort = front.port();
    startCollector();
    startService("vxcHost=localhost\nvxTlsVerify=1\nvxTlsCaFile=" + own.certificate + "\n");
    deliver(300, {"--processes", "2", "--rate", "1000"});
    EXPECT_EQ(summaryOfStreams().transactions, delivered);
    front.killAndStartAgain();
    EXPECT_TRUE(started(2)) << traceText();
    deliver(100, {}, "stock");
    EXPECT_EQ(summaryOfStreams().unreadable, 0u);
}

// The collector's order decides, safest first, and all connections follow; here with the bare form of the
// path.
TEST_F(WebSocketsBehind, AnInstanceMovesToWhatACollectorOffersThatListensForSeveral) {
    const TestCertificate own;
    const int wss = freePort();
    startCollector({"--wss", std::to_string(wss), "--cert", own.certificate, "--key", own.key});
    serviceWay = "TCP:" + std::to_string(collectorPort) + ",WSS";
    collectorRelayPort = wss;
    startService("vxRawWsPath=1\n");
    deliver(100);
    EXPECT_TRUE(
        collector->outputHolds("control connection of Tier/host7/shop/raw (instance 1) connected", 2));
    EXPECT_EQ(summaryOfStreams().transactions, delivered);
    for (const char* kind : {"Control", "Data", "AutoSensor"})
        EXPECT_TRUE(eventually([&] {
            return occurrences(traceText(), kind + std::string(" Protcol:WSS")) > 0;
        })) << kind;
}

}  // namespace
}  // namespace vx::test
