// What an operator meets: a process that falls, files that grow old, a configuration to check.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

class Operator : public EndToEnd {
protected:
    std::set<std::string> filesOf(const std::string& beginning) const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(logs)) {
            const std::string name = entry.path().filename().string();
            if (name.starts_with(beginning)) names.insert(name);
        }
        return names;
    }
    const std::string logs = dir / "proxy/logs";
    // The newest thread of the service: one that was started for an instance.
    pid_t newestThread() const {
        pid_t newest = 0;
        for (const auto& entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(service->pid()) + "/task"))
            newest = std::max(newest, static_cast<pid_t>(std::stoi(entry.path().filename().string())));
        return newest;
    }
    // The dump that appeared since `before`; empty unless it is exactly one.
    std::string newDump(const std::set<std::string>& before) const {
        std::string found;
        for (const std::string& name : filesOf("example_")) {
            if (before.contains(name)) continue;
            if (!found.empty()) return "";
            found = name;
        }
        return found.empty() ? "" : fileText(logs + "/" + found);
    }
};

TEST_F(Operator, AProcessThatFallsLeavesItsStackAndAFewOldOnes) {
    std::filesystem::create_directories(logs);
    for (int i = 0; i < 30; ++i) std::ofstream(logs + "/example_" + std::to_string(i) + ".txt") << "old";
    startCollector();
    startService();
    auto before = filesOf("example_");
    EXPECT_EQ(before.size(), 20u);
    ::syscall(SYS_tgkill, service->pid(), service->pid(), SIGSEGV);  // the main thread, whichever else runs
    EXPECT_EQ(service->wait(), 1);
    std::string dump = newDump(before);
    EXPECT_TRUE(dump.starts_with("Stack Trace with current ThreadID: ")) << dump;
    EXPECT_NE(dump.find("\nSignal 11, code -6, sent by process " + std::to_string(::getpid()) + ", at 0x"),
              std::string::npos)
        << dump;
    EXPECT_NE(dump.find("] main - 0x"), std::string::npos) << dump;
    EXPECT_TRUE(service->outputHolds("signal 11, stack trace in " + logs + "/example_"));

    startService();
    const auto agent = startLoad({"--rate", "50", "--duration", "1000"});
    ASSERT_TRUE(arrive(5) && linksStand()) << traceText();  // its threads are in functions of ours
    before = filesOf("example_");
    ASSERT_EQ(::syscall(SYS_tgkill, service->pid(), newestThread(), SIGBUS), 0);
    EXPECT_EQ(service->wait(), 1);
    dump = newDump(before);
    EXPECT_NE(dump.find("\nSignal 7, code -6"), std::string::npos) << dump;
    EXPECT_NE(dump.find("_ZN2vx"), std::string::npos) << "no function of ours\n" << dump;
}

TEST_F(Operator, ACheckBesideARunningServiceTouchesNothing) {
    std::filesystem::create_directories(logs);
    std::ofstream(logs + "/vx_trace_ProxyName_DotNetAgent_20200101000000_9.log_0") << "old";
    std::ofstream(logs + "/readme.txt") << "kept";
    startService("tier=Web\nagentTraceLvl=2\n");
    EXPECT_TRUE(eventually([&] {
        return traceText().find("vxsettings.conf:7: unknown setting, ignored: 'agentTraceLvl=2'") !=
               std::string::npos;
    })) << traceText();
    EXPECT_TRUE(service->outputHolds("VXProxyService: 1 fault(s) in the settings; --check-config tells"));
    EXPECT_TRUE(filesOf("vx_trace_ProxyName_DotNetAgent_2020").empty());
    EXPECT_EQ(filesOf("readme.txt").size(), 1u);

    const auto before = filesOf("");
    const Program::Setup check = serviceCommand("check.log", {"--check-config"});
    Program bad(check);
    EXPECT_EQ(bad.wait(), 2) << bad.output();
    EXPECT_TRUE(bad.outputHolds("vxsettings.conf:7: unknown setting, ignored: 'agentTraceLvl=2'"));
    std::ofstream(dir.path() + "/proxy/config/vxsettings.conf")
        << "vxcHost=127.0.0.1\nVXC_COMM_PROTOCOL=TCP:7892\n";
    Program good(check);
    EXPECT_EQ(good.wait(), 0) << good.output();
    EXPECT_TRUE(good.outputHolds("Collector: 127.0.0.1:7892, protocols TCP:7892")) << good.output();
    EXPECT_EQ(filesOf(""), before);
    EXPECT_TRUE(service->running());
}

TEST_F(Operator, ACollectorThatCannotServeItsPageOrInstancesSaysWhy) {
    const int taken = boundTo(0);
    ASSERT_EQ(::listen(taken, 1), 0);
    const std::string port = std::to_string(portOf(taken)), shortOne = dir / "short.token";
    std::ofstream(shortOne) << "0123456789\n";
    const struct {
        std::vector<std::string> arguments;
        std::string told;
    } rows[] = {
        {{"--http", "0", "--http-token-file", shortOne}, shortOne + ": the first line is no token of 16 to "},
        {{"--http", "0", "--http-token-file", dir / "none"}, dir / "none: No such file or directory"},
        {{"--http", port}, "the page cannot listen on 127.0.0.1:" + port},
        {{"--ws", port}, "port " + port + ": "},
    };
    for (const auto& row : rows) {
        Program::Setup setup{
            {programPath("vxcollector"), "--host", "127.0.0.1", "--listen", "0"}, {}, dir / "collector.txt"};
        setup.arguments.insert(setup.arguments.end(), row.arguments.begin(), row.arguments.end());
        Program refused(setup);
        EXPECT_EQ(refused.wait(), 1) << row.told;
        EXPECT_NE(refused.output().find("vxcollector: " + row.told), std::string::npos) << refused.output();
        EXPECT_EQ(refused.output().find("0123456789"), std::string::npos) << "a secret";
    }
    ::close(taken);
}

}  // namespace
}  // namespace vx::test
