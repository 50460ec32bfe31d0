// Peers that do not keep to any protocol, beside an agent that does.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/support/e2e_fixture.h"
#include "tests/support/raw_agent.h"
#include "tests/support/record_stream.h"

namespace vx::test {
namespace {

constexpr long kMaxGrowthKb = 4096 + kSanitizerGrowthKb;
constexpr std::size_t kReadBuffer = 131072;

// The same bytes in each run; every sixth or so means something to a parser of ours.
std::string noise(std::size_t size, unsigned seed) {
    static constexpr char kMeaningful[] = "\n^;=:|,%\0\xFF";
    std::mt19937 lot(seed);
    std::string out(size, '\0');
    for (char& byte : out) {
        const auto drawn = static_cast<std::uint32_t>(lot());
        byte =
            drawn % 6 ? static_cast<char>(drawn >> 8) : kMeaningful[(drawn >> 8) % (sizeof(kMeaningful) - 1)];
    }
    return out;
}

// What a peer gets to see until it is left alone.
void sendAndLeave(FakePeer& peer, const std::string& bytes) {
    peer.send(bytes);
    if (bytes.size() % 2) peer.reset();
    peer.close();
}

const char* const kFirstLines[] = {"", "vx_ctrl_msg_req:", "vx_data_msg_req:",
                                   "auto_sensor_thread_hotspot_data_req:", "agent_post_data_req:"};

void noiseOnFreshConnections(int port) {
    for (unsigned i = 0; i < 300; ++i) {
        FakePeer peer = connectTo(port);
        sendAndLeave(peer, kFirstLines[i % std::size(kFirstLines)] + noise(1 + i * 37, i));
    }
}

// The application is one of its own: what it reports adds up to nothing.
void noiseBehindARegistration(int port) {
    for (unsigned i = 0; i < 40; ++i) {
        RawAgent agent(port, "noise", 5000 + i % 7);
        ASSERT_TRUE(agent.start());
        agent.openData().send("\n" + noise(40000, i));
        FakePeer autoSensor = connectTo(port);
        const std::string line = agent.openDataLine();
        autoSensor.send("auto_sensor_thread_hotspot_data_req:" + line.substr(line.find(':') + 1));
        autoSensor.send(noise(5000, i + 1000));
        agent.control().send(noise(5000, i + 2000));
        sendAndLeave(agent.control(), "vx_control_req:action=send_file;keyword=\n" + noise(i, i));
    }
}

void linesWithoutEnd(int port) {
    for (const char* first : kFirstLines) {
        FakePeer endless = connectTo(port);
        endless.send(first + std::string(3 * kReadBuffer, 'a'));
        FakePeer longest = connectTo(port);
        longest.send(first + std::string(kReadBuffer - 200, ';') + "appName=a;\n");
        FakePeer fields = connectTo(port);
        std::string line = first;
        // Short enough to come in one piece: it registers in any case.
        while (line.size() < 30000) line += "appName=a;";
        fields.send(line + "\n");
    }
}

struct Abuse {
    const char* name;
    void (*commit)(int port);
};
class Abused : public EndToEnd, public testing::WithParamInterface<Abuse> {
protected:
    void commit(int times) {
        for (int i = 0; i < times; ++i) GetParam().commit(proxyPort);
        RawAgent last(proxyPort, "last", 1);  // once it is answered, the service has read what came before it
        ASSERT_TRUE(last.start());
    }
    // Resident memory once it has not changed for a while.
    long settledKb() const {
        long now = residentKb(service->pid()), before = -1;
        for (int round = 0; round < 40 && now != before; ++round) {
            before = now;
            eventually([] { return false; }, 0.3);
            now = residentKb(service->pid());
        }
        return now;
    }
};

TEST_P(Abused, ServiceKeepsItsPaceItsSumsAndItsSize) {
    // A short chain, whose nodes have all been used before memory is looked at.
    startCollector({"--keywords", dir.write("keywords",
                                            "zorEpochDiff=1388534400\nbciInstrSessionPct=100\n"
                                            "bciDataBufferMaxCount=20\n")});
    startService();
    makeInstance("good");
    // All of them would fit into the agent's queue, should the machine stop the service.
    const auto good = startLoad(
        {"--app", "good", "--rate", "300", "--transactions", "1200", "--calls", "2", "--duration", "100"});
    ASSERT_TRUE(arrive(30)) << traceText();
    commit(1);  // what is made once is made now
    // The good application, what the abuse is taken for, and the last one.
    ASSERT_TRUE(linksStand(3)) << collector->output();
    ASSERT_TRUE(service->running()) << "ended with " << service->wait() << "\n" << service->output();
    const long resident = settledKb();
    const int descriptors = descriptorsOf(service->pid());
    commit(3);

    ASSERT_EQ(good->wait(150), 0) << good->output();
    EXPECT_EQ(reported(good->output(), "total", "transactions"), 1200u);
    EXPECT_EQ(reported(good->output(), "total", "dropped"), 0u);
    EXPECT_EQ(reported(good->output(), "total", "reconnects"), 0u);
    EXPECT_TRUE(arrive(1200)) << arrived();
    EXPECT_EQ(arrived(), 1200u);
    EXPECT_EQ(summaryOfStreams().unreadable, 0u);
    ASSERT_TRUE(service->running()) << "ended with " << service->wait() << "\n" << service->output();
    EXPECT_LT(settledKb() - resident, kMaxGrowthKb);
    EXPECT_TRUE(eventually([&] { return descriptorsOf(service->pid()) <= descriptors + 4; }))
        << descriptors << " then, " << descriptorsOf(service->pid());
}
INSTANTIATE_TEST_SUITE_P(By, Abused,
                         testing::ValuesIn<Abuse>({{"noise_on_fresh_connections", noiseOnFreshConnections},
                                                   {"noise_behind_a_registration", noiseBehindARegistration},
                                                   {"lines_without_end", linesWithoutEnd}}),
                         byName);

class AbusedWhile : public EndToEnd {};

// Hundreds that say nothing, or say it a byte at a time, while an agent registers and delivers.
TEST_F(AbusedWhile, SilentAndSlowPeersHoldUpNobody) {
    startCollector();
    startService();
    std::vector<FakePeer> silent, slow;
    for (int i = 0; i < 800; ++i) silent.push_back(connectTo(proxyPort));
    for (int i = 0; i < 100; ++i) slow.push_back(connectTo(proxyPort));
    for (const FakePeer& peer : slow) peer.send("v");
    RawAgent halted(proxyPort, "halted", 4711);  // registered, its records stop in the middle
    ASSERT_TRUE(halted.start());
    const std::string frame = entryFrame(9, "A.b", 1);
    for (const char byte : "\n" + frame.substr(0, 20)) {
        if (!halted.data()) halted.openData();
        halted.data().send(std::string(1, byte));
    }
    EXPECT_EQ(reported(deliver(600, {"--rate", "300"}, "good"), "total", "transactions"), 600u);
    for (FakePeer& peer : slow) EXPECT_TRUE(peer.ended()) << "a line that is not whole ends its connection";
    EXPECT_FALSE(silent.front().ended(0));
}

// What stands in the home outside of an agent's own folder is not for agents, whatever they ask for or are
// called.
TEST_F(AbusedWhile, NamesThatLeaveTheirFolderGetNothing) {
    startCollector();
    startService();
    dir.write("proxy/.cache/raw/own", "content of its own\n");
    dir.write("proxy/.cache/other/foreign", "secret\n");
    dir.write("proxy/.cache/secret", "secret\n");
    dir.write("proxy/secret", "secret\n");
    struct {
        const char *agentName, *request, *answer;
    } const rows[] = {
        {"raw", "file;keyword=own;", "file;keyword=own"},
        {"raw", "file;keyword=../../secret;", "Failed"},
        {"raw", "instrumentation_profile;instrProfile=../../secret", "Failed"},
        {"..", "file;keyword=secret;", "Failed"},
        {".", "file;keyword=secret;", "Failed"},
        {"../.cache/other", "file;keyword=foreign;", "Failed"},
        {"/etc", "file;keyword=passwd;", "Failed"},
    };
    std::int64_t pid = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.agentName) + " " + row.request);
        RawAgent agent(proxyPort, "shop", ++pid);
        agent.identity().agent = row.agentName;
        ASSERT_TRUE(agent.start());
        agent.control().send("vx_control_req:action=send_" + std::string(row.request) + "\n");
        const std::string answer = agent.control().readLinesUpTo("vx_control_rep:action=").back();
        EXPECT_TRUE(answer.starts_with("vx_control_rep:action=" + std::string(row.answer))) << answer;
        EXPECT_NE(agent.control().readLine(), "secret");  // a heartbeat, or the content
    }
}

}  // namespace
}  // namespace vx::test
