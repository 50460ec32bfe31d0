#include "commonlibc/proxyServer/vx_proxy_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "commonlibc/proxyServer/vx_proxy_read.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_utiles.h"
#include "tests/support/by_name.h"
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
    std::string answerTo(const std::string& line) {
        ask(agent, line);
        ::shutdown(vxlb_socket_fd(agent.socket), SHUT_WR);
        return agent.peer.readToEnd();
    }

    Agent agent;
};

TEST_F(FileService, SendsTheBytesOfAFileBehindItsSize) {
    const std::string content("line\n\0\xff no newline", 18);
    cached("BTRuleFile", content);
    cached("empty", "");
    cached("prof.txt", "p\n");
    struct {
        const char* asked;
        std::string answer;
    } const cases[] = {
        {"send_file;keyword=BTRuleFile;size=1;",
         "file;keyword=BTRuleFile%3Bsize%3D18%3Blmd%3D" + dateOf("BTRuleFile") + ";\n" + content},
        {"send_file;keyword=empty", "file;keyword=empty%3Bsize%3D0%3Blmd%3D" + dateOf("empty") + ";\n"},
        {"send_instrumentation_profile;instrProfile=C:\\a\\prof.txt",
         "instrumentation_profile;instrProfile=prof.txt;size=2;lmd=" + dateOf("prof.txt") + ";\np\n"},
    };
    int pid = 200;
    for (const auto& each : cases) {
        agent = process(++pid);
        EXPECT_EQ(answerTo(each.asked), "vx_control_rep:action=" + each.answer);
    }
}

struct MissingCase {
    const char* name;
    std::string asked;
};
class MissingFile : public FileService, public testing::WithParamInterface<MissingCase> {};

TEST_P(MissingFile, IsAnsweredAndTheConnectionStays) {
    cached("inside", "x");
    write("outside", "secret");
    std::filesystem::create_directories(home() + "/.cache/nginx/folder");
    ask(agent, GetParam().asked);
    EXPECT_TRUE(agent.peer.readLine(1).starts_with("vx_control_rep:action=Failed"));
    EXPECT_EQ(agent.peer.readLine(0), kNoLine) << "nothing behind it";
    EXPECT_FALSE(agent.refused());
}
INSTANTIATE_TEST_SUITE_P(Names, MissingFile,
                         testing::ValuesIn<MissingCase>({
                             {"not_there", "send_file;keyword=BTRuleFile;"},
                             {"empty", "send_file;keyword=;"},
                             {"the_folder_itself", "send_file;keyword=."},
                             {"out_of_the_folder", "send_file;keyword=../../config/outside;"},
                             {"the_folder_above", "send_file;keyword=..;"},
                             {"backslashes_of_a_keyword", "send_file;keyword=a\\inside;"},
                             {"a_control_byte", "send_file;keyword=inside\x01;"},
                             {"a_folder", "send_file;keyword=folder;"},
                             {"too_long_a_keyword", "send_file;keyword=" + std::string(256, 'k') + ";"},
                             {"a_name_of_100000_bytes",
                              "send_instrumentation_profile;instrProfile=" + std::string(100000, 'p')},
                             {"a_profile_above", "send_instrumentation_profile;instrProfile=a/.."},
                         }),
                         byName);

TEST_F(FileService, NamesPathsInItsRefusals) {
    EXPECT_EQ(answerTo("send_file;keyword=k;"),
              "vx_control_rep:action=Failedk - " + home() + "/.cache/nginx/k\n");
    agent = process(101);
    EXPECT_EQ(answerTo("send_instrumentation_profile;instrProfile=x\\p"),
              "vx_control_rep:action=FailedInstrumentationProfile - " + home() + "/.cache/nginx/p\n");
}

TEST_F(FileService, AnAgentNameThatLeavesTheCacheFolderGetsNothing) {
    write("outside", "secret");
    Agent outsider = process(300, "../config");
    ask(outsider, "send_file;keyword=outside;");
    EXPECT_TRUE(outsider.peer.readLine(1).starts_with("vx_control_rep:action=Failedoutside - "));
}

TEST_F(FileService, ABigFileReachesAnAgentThatReads) {
    const std::string content(6 * 1024 * 1024, 'b');
    cached("big", content);
    std::string got;
    std::thread reader([&] { got = agent.peer.readToEnd(20); });
    agent.peer.send("vx_control_req:action=send_file;keyword=big;\n");
    readMessageFromSocket(agent.socket, VXProxy.controlBuf, &agent.address);
    ::shutdown(vxlb_socket_fd(agent.socket), SHUT_WR);
    reader.join();
    EXPECT_TRUE(got.ends_with(content));
}

TEST_F(FileService, AgentsThatNeverReadLoseTheirConnectionsAndCostTwoSecondsTogether) {
    cached("big", std::string(6 * 1024 * 1024, 'b'));
    constexpr int kAgents = 10;
    Agent greedy[kAgents];
    for (int i = 0; i < kAgents; ++i) greedy[i] = process(200 + i);
    const auto before = std::chrono::steady_clock::now();
    for (Agent& each : greedy) ask(each, "send_file;keyword=big;");
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10));
    for (const Agent& each : greedy) EXPECT_TRUE(each.refused());
    EXPECT_EQ(pidOf(1), kFreePid);
    EXPECT_EQ(instance().identity.activeProcesses, 1);
}

}  // namespace
}  // namespace vx::test
