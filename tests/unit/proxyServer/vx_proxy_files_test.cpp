#include "commonlibc/proxyServer/vx_proxy_files.h"

#include <sys/stat.h>

#include <chrono>
#include <string>

#include "commonlibc/proxyServer/vx_proxy_read.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_utiles.h"
#include "tests/support/proxy_fixture.h"

namespace vx::test {
namespace {

class FileService : public ProxyFixture {
protected:
    void SetUp() override {
        ProxyFixture::SetUp();
        VXProxy.vxHomePath = vxlb_strdup(home().c_str());
        agent = process(100);
    }
    // A file of the agent's folder.
    void cached(const std::string& name, const std::string& content) const {
        write("../.cache/nginx/" + name, content);
    }
    // The low 32 bits of its date.
    std::string dateOf(const std::string& name) const {
        struct stat info {};
        EXPECT_EQ(::stat((home() + "/.cache/nginx/" + name).c_str(), &info), 0);
        const std::int64_t us = info.st_mtim.tv_sec * 1000000 + info.st_mtim.tv_nsec / 1000;
        return std::to_string(static_cast<std::uint32_t>(us));
    }
    static void ask(Agent& from, const std::string& line) {
        from.peer.send("vx_control_req:action=" + line + "\n");
        readMessageFromSocket(from.socket, VXProxy.controlBuf, &from.address);
    }

    Agent agent;
};

TEST_F(FileService, SendsTheBytesOfAFileBehindItsSize) {
    const std::string content("line\n\0\xff no newline", 18);
    cached("BTRuleFile", content);
    cached("empty", "");
    cached("prof.txt", "p\n");
    const auto expect = [this](const std::string& asked, const std::string& answer) {
        ask(agent, asked);
        EXPECT_EQ(agent.peer.readBytes(22 + answer.size()), "vx_control_rep:action=" + answer);
    };
    expect("send_file;keyword=BTRuleFile;size=1;",
           "file;keyword=BTRuleFile%3Bsize%3D18%3Blmd%3D" + dateOf("BTRuleFile") + ";\n" + content);
    expect("send_file;keyword=empty", "file;keyword=empty%3Bsize%3D0%3Blmd%3D" + dateOf("empty") + ";\n");
    expect("send_instrumentation_profile;instrProfile=C:\\a\\prof.txt",
           "instrumentation_profile;instrProfile=prof.txt;size=2;lmd=" + dateOf("prof.txt") + ";\np\n");
}

TEST_F(FileService, AgentsThatNeverReadLoseTheirConnectionsAndCostTwoSecondsTogether) {
    cached("big", std::string(6 * 1024 * 1024, 'b'));
    constexpr int kAgents = 35;
    Agent greedy[kAgents];
    for (int i = 0; i < kAgents; ++i) greedy[i] = process(200 + i);
    const auto before = std::chrono::steady_clock::now();
    for (Agent& each : greedy) ask(each, "send_file;keyword=big;");
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(60));
    for (const Agent& each : greedy) EXPECT_TRUE(each.refused());
    EXPECT_EQ(pidOf(1), kFreePid);
    EXPECT_EQ(instance().identity.activeProcesses, 1);
}

}  // namespace
}  // namespace vx::test
