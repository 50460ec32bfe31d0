#include "tests/support/e2e_fixture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>

#include "tests/support/ws_bridge.h"
#include "tools/collector/collector_records.h"

namespace vx::test {

namespace {

// Paths of a folder whose names hold `part`, in order of their names.
std::vector<std::string> filesOf(const std::string& folder, const std::string& part) {
    std::vector<std::string> out;
    if (!std::filesystem::is_directory(folder)) return out;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().filename().string().find(part) != std::string::npos)
            out.push_back(entry.path().string());
    std::sort(out.begin(), out.end());
    return out;
}

const TestCertificate& ownCertificate() {
    static const TestCertificate own;
    return own;
}

}  // namespace

void EndToEnd::startCollector(std::vector<std::string> more) {
    Program::Setup setup;
    const std::string port = std::to_string(collectorPort);
    const std::string way = collectorWay == "TCP" ? "--listen" : collectorWay == "WS" ? "--ws" : "--wss";
    setup.arguments = {
        programPath("vxcollector"), way,         port,          "--host", "127.0.0.1", "--out", streamsDir,
        "--retry-policy",           "3%1%10%60", "--heartbeat", "1"};
    if (way == "--wss") {
        setup.arguments.insert(setup.arguments.end(),
                               {"--cert", ownCertificate().certificate, "--key", ownCertificate().key});
    }
    setup.arguments.insert(setup.arguments.end(), more.begin(), more.end());
    setup.outputFile = dir.path() + "/collector" + std::to_string(++collectors) + ".log";
    collector = std::make_unique<Program>(setup);
    ASSERT_TRUE(collector->outputHolds("listening on")) << collector->output();
}

void EndToEnd::startService(const std::string& moreSettings) {
    const std::string config = dir.path() + "/proxy/config";
    std::filesystem::create_directories(config);
    std::ofstream(config + "/proxysetting.conf") << "proxyPort=" << proxyPort << "\n" << proxySettings;
    if (agentWay != "TCP") {
        std::ofstream(config + "/proxysetting.conf", std::ios::app)
            << "proxyAgentWebSocket=" << (agentWay == "WSS" ? 2 : 1) << "\n";
        std::ofstream(config + "/proxy.cert")
            << fileText(ownCertificate().certificate) << fileText(ownCertificate().key);
    }
    const int told = collectorRelayPort ? collectorRelayPort : collectorPort;
    std::ofstream(config + "/vxsettings.conf")
        << "vxcHost=127.0.0.1\nvxcPort=" << told
        << "\nVXC_COMM_PROTOCOL=" << (serviceWay.empty() ? collectorWay : serviceWay) << ":" << told
        << "\nCONNECTION_RETRY_TIME_INTERVAL=1\nagentTraceLevel=1\n"
        << moreSettings;
    Program::Setup setup;
    setup.arguments = {programPath("VXProxyService")};
    setup.environment = {"VXHOME=" + dir.path()};
    setup.outputFile = dir.path() + "/service.log";
    service = std::make_unique<Program>(setup);
    ASSERT_TRUE(service->outputHolds("listening")) << service->output();
}

std::unique_ptr<Program> EndToEnd::startLoad(std::vector<std::string> arguments) {
    Program::Setup setup;
    setup.arguments = {programPath("vxagent"),
                       "load",
                       "--proxy",
                       "127.0.0.1:" + std::to_string(proxyRelayPort ? proxyRelayPort : proxyPort),
                       "--app",
                       "shop",
                       "--tier",
                       "Tier",
                       "--server",
                       "host7",
                       "--agent",
                       "raw"};
    setup.arguments.insert(setup.arguments.end(), arguments.begin(), arguments.end());
    if (agentWay != "TCP") setup.arguments.push_back(agentWay == "WSS" ? "--wss" : "--ws");
    setup.outputFile = dir.path() + "/load" + std::to_string(++loads) + ".log";
    return std::make_unique<Program>(setup);
}

void EndToEnd::makeInstance(const std::string& application) {
    if (agentWay != "TCP") return;  // vxagent, which waits for this by itself, is the only one there
    RawAgent first(proxyPort, application, 1);
    ASSERT_TRUE(first.start()) << traceText();
    ASSERT_TRUE(collector->outputHolds("data connection of Tier/host7/" + application + "/raw"));
}

void EndToEnd::writeEntryPoints() const {
    const std::string entries = dir / "entry.txt";
    ASSERT_EQ(Program({{programPath("vxagent"), "load", "--entry-points"}, {}, entries}).wait(), 0);
    dir.write("files/VXEntryPointsFile", fileText(entries));
}

void EndToEnd::inTwoRuns(const std::function<void(RawAgent& agent, int run)>& body) {
    const auto comes = [this](int number, int count) {
        return eventually(
            [&] { return summaryOfStreams().byNumber[number] >= static_cast<unsigned>(count); });
    };
    for (int run = 1; run <= 2; ++run) {
        SCOPED_TRACE(run);
        RawAgent agent(proxyPort, "shop", static_cast<unsigned>(run));
        ASSERT_TRUE(agent.start()) << traceText();
        ASSERT_TRUE(comes(99, run));  // before, the agents' data connections are closed
        ASSERT_NO_FATAL_FAILURE(body(agent, run));
        collector->say("stop");
        ASSERT_TRUE(collector->outputHolds("action=stop_instrumentation;status=stopping;result=Ok", run));
        ASSERT_TRUE(comes(10, run));
        collector->say("start");
    }
}

std::string EndToEnd::deliver(int transactions, std::vector<std::string> arguments,
                              const std::string& application) {
    makeInstance(application);
    // A number and not a time: how much is sent is not the machine's choice.
    arguments.insert(arguments.end(), {"--app", application, "--transactions", std::to_string(transactions),
                                       "--duration", "100"});
    const auto load = startLoad(std::move(arguments));
    EXPECT_EQ(load->wait(100), 0) << load->output();
    delivered += reported(load->output(), "total", "transactions");
    EXPECT_TRUE(arrive(delivered)) << delivered << " sent, " << arrived() << " arrived\n" << traceText();
    return load->output();
}

bool EndToEnd::arrive(std::uint64_t count, double seconds) const {
    return eventually([&] { return arrived() >= count; }, seconds);
}

std::string EndToEnd::streams(const std::string& kind) const {
    std::string out;
    for (const std::string& path : filesOf(streamsDir, kind + "_")) out += fileText(path);
    return out;
}

collector::Summary EndToEnd::summaryOfStreams() const {
    collector::Summary summary;
    for (const std::string& path : filesOf(streamsDir, "data_")) {
        collector::InstanceState instance;
        const std::string text = fileText(path);
        std::string_view rest = text;
        rest.remove_prefix(std::min(rest.size(), rest.find('\n') + 1));  // the connect line
        // What a lost connection leaves behind its last newline is no record.
        for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
            collector::takeRecord(rest.substr(0, end), instance, summary);
            rest.remove_prefix(end + 1);
        }
    }
    return summary;
}

std::string EndToEnd::traceText() const {
    std::string out;
    for (const std::string& path : filesOf(dir.path() + "/proxy/logs", "vx_trace_")) out += fileText(path);
    return out;
}

std::uint64_t reported(const std::string& output, const std::string& line, const std::string& key) {
    std::uint64_t sum = 0;
    for (std::size_t at = output.find(line); at != std::string::npos; at = output.find(line, at + 1)) {
        const std::size_t end = output.find('\n', at);
        const std::size_t found = output.find(" " + key + "=", at);
        if (found < end) sum += std::stoull(output.substr(found + key.size() + 2));
    }
    return sum;
}

}  // namespace vx::test
