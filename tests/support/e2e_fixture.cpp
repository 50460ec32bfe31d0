#include "tests/support/e2e_fixture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

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

std::string textOf(const std::vector<std::string>& paths) {
    std::string out;
    for (const std::string& path : paths) out += fileText(path);
    return out;
}

// A program with options that hold no blanks, and further arguments.
std::vector<std::string> commandOf(const char* program, const std::string& options,
                                   const std::vector<std::string>& more) {
    std::vector<std::string> command = {programPath(program)};
    std::istringstream words(options);
    for (std::string word; words >> word;) command.push_back(word);
    command.insert(command.end(), more.begin(), more.end());
    return command;
}

const TestCertificate& ownCertificate() {
    static const TestCertificate own;
    return own;
}

}  // namespace

void EndToEnd::startCollector(const std::vector<std::string>& more) {
    const std::string way = collectorWay == "TCP" ? "--listen" : collectorWay == "WS" ? "--ws" : "--wss";
    std::vector<std::string> command =
        commandOf("vxcollector",
                  way + " " + std::to_string(collectorPort) +
                      " --host 127.0.0.1 --retry-policy 3%1%10%60 --heartbeat 1",
                  more);
    command.insert(command.end(), {"--out", streamsDir});
    if (way == "--wss") {
        command.insert(command.end(),
                       {"--cert", ownCertificate().certificate, "--key", ownCertificate().key});
    }
    std::filesystem::remove_all(streamsDir);  // of a former one, which it would write over
    read_ = {};
    collector = std::make_unique<Program>(
        Program::Setup{command, {}, dir / ("collector" + std::to_string(++collectors) + ".log")});
    ASSERT_TRUE(collector->outputHolds("listening on")) << collector->output();
}

void EndToEnd::startService(const std::string& moreSettings) {
    std::string proxySetting = "proxyPort=" + std::to_string(proxyPort) + "\n" + proxySettings;
    if (agentWay != "TCP")
        proxySetting += agentWay == "WSS" ? "proxyAgentWebSocket=2\n" : "proxyAgentWebSocket=1\n";
    dir.write("proxy/config/proxysetting.conf", proxySetting);
    if (agentWay == "WSS")
        dir.write("proxy/config/proxy.cert",
                  fileText(ownCertificate().certificate) + fileText(ownCertificate().key));
    const int told = collectorRelayPort ? collectorRelayPort : collectorPort;
    const std::string port = std::to_string(told);
    dir.write("proxy/config/vxsettings.conf",
              "vxcHost=127.0.0.1\nvxcPort=" + port +
                  "\nVXC_COMM_PROTOCOL=" + (serviceWay.empty() ? collectorWay : serviceWay) + ":" + port +
                  "\nCONNECTION_RETRY_TIME_INTERVAL=1\nagentTraceLevel=1\n" + moreSettings);
    service = std::make_unique<Program>(serviceCommand("service.log"));
    ASSERT_TRUE(service->outputHolds("listening")) << service->output();
}

std::unique_ptr<Program> EndToEnd::startLoad(const std::vector<std::string>& arguments) {
    return startAgent("load", arguments);
}

std::unique_ptr<Program> EndToEnd::startAgent(const std::string& mode,
                                              const std::vector<std::string>& arguments) {
    const std::string proxy = "127.0.0.1:" + std::to_string(proxyRelayPort ? proxyRelayPort : proxyPort);
    std::vector<std::string> command = commandOf(
        "vxagent", mode + " --proxy " + proxy + " --app shop --tier Tier --server host7 --agent raw",
        arguments);
    if (agentWay != "TCP") command.push_back(agentWay == "WSS" ? "--wss" : "--ws");
    return std::make_unique<Program>(
        Program::Setup{command, {}, dir / (mode + std::to_string(++loads) + ".log")});
}

void EndToEnd::makeInstance(const std::string& application) {
    RawAgent first(proxyRelayPort ? proxyRelayPort : proxyPort, application, 1);
    std::unique_ptr<Program> silent;
    if (agentWay == "TCP")
        ASSERT_TRUE(first.start()) << traceText();
    else
        silent =
            startAgent("access-log", {"--app", application, "--follow", "--file", dir.write("empty", "")});
    for (const char* kind : {" data", " auto-sensor"})
        ASSERT_TRUE(collector->outputHolds(kind + (" connection of Tier/host7/" + application + "/raw")))
            << traceText();
}

bool EndToEnd::linksStand(int instances) const {
    const auto standing = [this](const std::string& kind) {
        std::istringstream lines(collector->output());
        int count = 0;
        for (std::string line; std::getline(lines, line);) {
            if (line.find(" " + kind + " connection of ") == std::string::npos) continue;
            count += (line.find(") connected (") != std::string::npos) -
                     (line.find(") disconnected (") != std::string::npos);
        }
        return count;
    };
    return eventually([&] { return standing("data") >= instances && standing("auto-sensor") >= instances; });
}

void EndToEnd::writeEntryPoints() const {
    const std::string entries = dir / "entry.txt";
    ASSERT_EQ(Program({{programPath("vxagent"), "load", "--entry-points"}, {}, entries}).wait(), 0);
    dir.write("files/VXEntryPointsFile", fileText(entries));
}

bool EndToEnd::started(int times) const {
    return collector->outputHolds("action=start_instrumentation;status=starting;result=Ok", times);
}

bool EndToEnd::stopRun(int times) const {
    collector->say("stop");
    return collector->outputHolds("action=stop_instrumentation;status=stopping;result=Ok", times);
}

Program::Setup EndToEnd::serviceCommand(const std::string& output, std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), programPath("VXProxyService"));
    return {arguments, {"VXHOME=" + dir.path()}, dir / output};
}

std::string EndToEnd::deliver(int transactions, std::vector<std::string> arguments,
                              const std::string& application) {
    makeInstance(application);
    // A number and not a time: how much is sent is not the machine's choice.
    arguments.insert(arguments.end(), {"--app", application, "--transactions", std::to_string(transactions),
                                       "--duration", "100"});
    const auto load = startLoad(arguments);
    EXPECT_EQ(load->wait(150), 0) << load->output();
    delivered += reported(load->output(), "total", "transactions");
    EXPECT_TRUE(arrive(delivered)) << delivered << " sent, " << arrived() << " arrived\n" << traceText();
    return load->output();
}

bool EndToEnd::arrive(std::uint64_t count, double seconds) const {
    return eventually([&] { return arrived() >= count; }, seconds);
}

std::string EndToEnd::streams(const std::string& kind) const {
    return textOf(filesOf(streamsDir, kind + "_"));
}

std::uint64_t EndToEnd::arrived() const {
    readStreams();
    return read_.summary.transactions;
}

collector::Summary EndToEnd::summaryOfStreams() const {
    readStreams();
    return read_.summary;
}

// What was read stays read: tests ask a hundred times a second, and streams only grow.
void EndToEnd::readStreams() const {
    if (read_.folder != streamsDir) read_ = {.folder = streamsDir};
    for (const std::string& path : filesOf(streamsDir, "data_")) {
        auto& [at, instance] = read_.files[path];
        std::ifstream file(path, std::ios::binary);
        std::ostringstream further;
        file.seekg(static_cast<std::streamoff>(at));
        further << file.rdbuf();
        const std::string text = further.str();
        // What a lost connection leaves behind its last newline is no record.
        for (std::size_t from = 0, end = 0; (end = text.find('\n', from)) != std::string::npos;
             from = end + 1) {
            const std::string_view line = std::string_view(text).substr(from, end - from);
            if (at > 0) collector::takeRecord(line, instance, read_.summary);  // behind the connect line
            at += line.size() + 1;
        }
    }
}

std::string EndToEnd::traceText() const {
    return textOf(filesOf(dir / "proxy/logs", "vx_trace_"));
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
