// Two collectors: how an instance leaves the one, comes to the other and back, over each protocol.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/control_thread.h"
#include "tests/support/link_fixture.h"
#include "tests/support/tcp_relay.h"
#include "tests/support/ws_bridge.h"

namespace vx::test {
namespace {

constexpr const char* kControl = "vx_ctrl_msg_req:";

// A collector behind a front of one protocol and a relay; it says what it supports.
struct Site {
    explicit Site(const std::string& name)
        : protocol(name),
          certificate(name == "WSS" ? std::make_unique<TestCertificate>() : nullptr),
          front(name == "TCP" ? nullptr : std::make_unique<WsBridge>(plain.port(), certificate.get())),
          relay(front ? front->port() : plain.port()) {}
    std::string offer() const { return protocol + ":" + std::to_string(relay.port()); }
    // The next connection whose connect line begins so, that line taken.
    FakePeer accept(const std::string& prefix = kControl, double seconds = kPeerSeconds) {
        for (;;) {
            FakePeer next = plain.accept(seconds);
            if (!next || (line = next.readLine(seconds)).starts_with(prefix)) return next;
            passedOver.push_back(std::move(next));
        }
    }
    // Data and auto-sensor connection, in any order.
    std::vector<FakePeer> acceptStreams() {
        std::vector<FakePeer> streams;
        bool data = false, autoSensor = false;
        while (!data || !autoSensor) {
            streams.push_back(accept(""));
            if (!streams.back()) return {};
            if (line.starts_with("vx_data_msg_req:")) dataAt = streams.size() - 1, data = true;
            autoSensor |= line.starts_with("auto_sensor_thread_hotspot_data_req:");
        }
        return streams;
    }
    FakePeer answer(const std::string& offered = "", const std::string& state = "1",
                    const std::string& misses = "1000000") {
        FakePeer control = accept();
        reply(control, offered, state, misses);
        return control;
    }
    void reply(const FakePeer& control, const std::string& offered = "", const std::string& state = "1",
               const std::string& misses = "1000000") const {
        control.send(
            "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=" + state + ";retryPolicy=2%1%" + misses +
            "%10;ProtoVersion=1;supportedProtocols=" + (offered.empty() ? offer() : offered) + ";\n");
    }

    FakeCollector plain;
    const std::string protocol;
    std::unique_ptr<TestCertificate> certificate;
    std::unique_ptr<WsBridge> front;
    TcpRelay relay;
    std::string line;                  // of the last connection accepted
    std::size_t dataAt = 0;            // the data connection among the streams
    std::vector<FakePeer> passedOver;  // by accept()
};

class Failover : public LinkFixture, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        app->control.pollTimeUs = 2000;
        app->VXSys.dataConnState = 1;
        vx_word_set(app->VXSys.bciDataBufferMaxCount, 8);
        vx_word_set(app->VXSys.bciDataBufferMaxSize, 65536);
        writeSettings(master.offer());
    }
    void TearDown() override {
        stop();
        LinkFixture::TearDown();
    }
    void stop() {
        app->control.proxyStopRequested = 1;
        vxJoinControlThread(*app);
    }
    void writeSettings(const std::string& protocols, const std::string& more = "") {
        const std::string port = std::to_string(backup.relay.port());
        write("vxsettings.conf",
              "vxcHost=localhost\nCONNECTION_RETRY_TIME_INTERVAL=1\nVXC_COMM_PROTOCOL=" + protocols + "\n" +
                  (more.empty() ? "backupVxcHostName=localhost\nbackupVxcPort=" + port + "\n" : more));
    }
    // Another protocol, as an item behind the first.
    std::string other() const { return master.front ? ",TCP:1" : ",WS:1"; }
    // True when the connection stands: its reply has gone on to the agent, and heartbeats come.
    static bool stands(FakePeer& control) {
        return control.readLine().starts_with("vx_control_req:action=reconnect;heartBeat");
    }

    // The connection that stands, behind those that the instance had given up before they were answered.
    static FakePeer standing(Site& site) {
        for (int i = 0; i < 10; ++i) {
            FakePeer control = site.answer();
            if (!control || stands(control)) return control;
        }
        return FakePeer();
    }

    Site master{GetParam()}, backup{GetParam()};
};

TEST_P(Failover, HoweverTheMasterGoesTheBackupIsFoundAndTheMasterAgain) {
    FakePeer silent;
    const struct {
        const char* name;
        std::function<void(FakePeer&)> lose;
    } ways[] = {
        {"sends it away", [&](FakePeer& control) { control.close(), master.answer("", "0"); }},
        {"refuses connections", [&](FakePeer& control) { master.relay.refuse(true), control.close(); }},
        {"refuses the instance",
         [&](FakePeer& control) {
             control.close();
             FakePeer refused = master.accept();
             refused.send("vx_ctrl_msg_rep:result=Error;\n");
             EXPECT_TRUE(refused.ended());
         }},
        {"takes connections and says nothing",
         [&](FakePeer& control) {  // the attempts that the policy grants were used up above
             control.close();
             vx_word_set(app->VXSys.fileReadTimeout, 1000000);  // a reply is awaited for so long
             silent = master.accept();
         }},
        {"answers no heartbeat",
         [&](FakePeer& control) {
             control.close();
             silent = master.answer("", "1", "2");
             EXPECT_TRUE(stands(silent));
             clockAheadUs += 61000000;
         }},
    };
    ASSERT_EQ(vxStartControlThread(app), 0);
    for (const auto& way : ways) {
        SCOPED_TRACE(way.name);
        FakePeer control = master.answer();
        ASSERT_TRUE(stands(control)) << master.line;
        way.lose(control);
        FakePeer other = standing(backup);
        ASSERT_TRUE(other) << backup.line;
        vx_word_set(app->VXSys.fileReadTimeout, 20000000);
        master.relay.refuse(false);
        backup.relay.refuse(true);
        other.close();
        FakePeer back = standing(master);
        ASSERT_TRUE(back) << master.line;
        backup.relay.refuse(false);
        back.close();
    }
}

TEST_P(Failover, EachCollectorIsReachedOverTheProtocolThatItNames) {
    writeSettings(master.offer() + other());
    ASSERT_EQ(vxStartControlThread(app), 0);
    for (int round = 0; round < 2; ++round) {
        FakePeer control = master.answer();
        ASSERT_TRUE(stands(control)) << "round " << round << master.line;
        const int arrived = master.relay.accepted();
        control.close();
        master.answer("", "0");
        // Over the configured protocol, or the one that it named the last time.
        const std::string tcp = "TCP:" + std::to_string(backup.plain.port());
        FakePeer other = backup.answer(tcp);
        const bool moves = round == 0 && backup.front;
        if (moves) {
            EXPECT_TRUE(other.ended());
            other = backup.answer(tcp);
        }
        ASSERT_TRUE(stands(other)) << "round " << round << backup.line;
        EXPECT_NE(backup.line.find(";protoVer=0;"), std::string::npos) << backup.line;
        other.send("vx_control_req:action=start_instrumentation;testIdx=4;\n");
        EXPECT_EQ(backup.acceptStreams().size(), 2U);
        EXPECT_EQ(master.relay.accepted(), arrived + 1);
        other.close();
        EXPECT_TRUE(backup.relay.accepted() == 1 || !backup.front);
    }
}

TEST_P(Failover, ANegotiatedPortThatNobodyServesIsGivenUpForTheConfiguredOne) {
    FakeCollector dead;
    dead.stopListening();
    writeSettings(master.offer() + other());
    ASSERT_EQ(vxStartControlThread(app), 0);
    master.answer(other().substr(1, other().size() - 2) + std::to_string(dead.port()));
    backup.answer("", "0");  // found by the retry policy
    FakePeer control = master.answer();
    EXPECT_TRUE(stands(control));
}

TEST_P(Failover, TenMinutesOfSilenceAreEnough) {
    ASSERT_EQ(vxStartControlThread(app), 0);
    FakePeer control = master.accept();
    EXPECT_FALSE(control.ended(0.2));
    wallAheadUs = 601000000;  // a clock that is set is no time that passes: a reply is awaited as before
    EXPECT_FALSE(control.ended(1.2));
    master.reply(control);
    ASSERT_TRUE(stands(control));
    wallAheadUs = 3600000000;
    EXPECT_FALSE(control.ended(1.2));
    wallAheadUs = -3600000000;
    clockAheadUs += 601000000;
    EXPECT_TRUE(control.ended());
    // Plain sockets know the shorter vxcHeartBeatThreshold, which is no order to move.
    Site& next = master.protocol == "TCP" ? master : backup;
    FakePeer later = next.answer();
    EXPECT_TRUE(stands(later));
}

TEST_P(Failover, TheServiceEndpointHandsTheInstanceOver) {
    writeSettings(master.protocol + ":1",
                  "vxProjectKey=k1\nvxSaasURL=localhost:" + std::to_string(backup.relay.port()) + "\n");
    ASSERT_EQ(vxStartControlThread(app), 0);
    FakePeer saas = backup.accept("zor_saas_auth_agent_msg_req:");
    EXPECT_NE(backup.line.find(";projectKey=k1;"), std::string::npos) << backup.line;
    saas.send("zor_saas_auth_agent_msg_rep:status=OK;host=127.0.0.1;port=" +
              std::to_string(master.relay.port()) + ";authtoken=t9;protoVer=2;\n");
    EXPECT_TRUE(saas.ended());
    FakePeer control = master.answer();
    EXPECT_TRUE(toAgent().starts_with("vx_ctrl_msg_rep:"));
    EXPECT_NE(master.line.find(";authtoken=t9;"), std::string::npos) << master.line;
    EXPECT_NE(master.line.find(";connDestination=127.0.0.1:"), std::string::npos) << master.line;
    master.relay.refuse(true);
    control.close();
    EXPECT_TRUE(backup.accept("zor_saas_auth_agent_msg_req:")) << "it may name another one now";
}

TEST_P(Failover, AClusterMovesItToANodeAndBackWhenThatIsGone) {
    ASSERT_EQ(vxStartControlThread(app), 0);
    FakePeer control = master.answer();
    ASSERT_TRUE(stands(control));
    control.send("vx_control_req:action=reroute_ctrl_con;clusterMode=1;vxcHost=127.0.0.1;vxcPort=" +
                 std::to_string(backup.relay.port()) + ";\n");
    FakePeer node = backup.answer();
    ASSERT_TRUE(stands(node));
    EXPECT_NE(backup.line.find(";requestType=2;"), std::string::npos) << backup.line;
    backup.relay.refuse(true);
    node.close();
    FakePeer back = master.answer();
    EXPECT_TRUE(stands(back));
    EXPECT_NE(master.line.find(";requestType=3;"), std::string::npos) << master.line;
}

// Records of a run that come on a data connection: so many, or all.
std::uint64_t recordsIn(FakePeer& data, std::uint64_t most = UINT64_MAX) {
    std::uint64_t count = 0;
    for (std::string line; count < most && (line = data.readLine()) != kNoLine;)
        if (line.starts_with("4,") || line.starts_with("10,")) ++count;
    return count;
}

// The link is lost each minute, once in 24 times in the midst of a run, now and then with its data
// connection.
TEST_P(Failover, ADayOfReconnectsLeavesNothingBehindAndLosesNothingUncounted) {
    // A third is as much as a sanitizer keeps back of blocks. The last minute has no run: a data connection
    // that came back in the one before is met on the way to its control connection.
    const int minutes = (master.front ? 480 : 1440) + 1;
    const auto wayTo = [](const Site& site) {  // plain sockets: no relay whose host acknowledges for it
        return site.front ? site.offer() : "TCP:" + std::to_string(site.plain.port());
    };
    writeSettings(wayTo(master));
    ASSERT_EQ(vxStartControlThread(app), 0);
    long descriptors = 0, resident = 0;
    std::uint64_t received = 0;
    for (int minute = 0; minute < minutes; ++minute) {
        SCOPED_TRACE(minute);
        FakePeer control = master.answer(wayTo(master));
        ASSERT_TRUE(control);
        if (minute % 24 == 23) {
            const bool dataGoesFirst = minute % 48 == 47 && !master.front;
            control.send("vx_control_req:action=start_instrumentation;testIdx=4;\n");
            std::vector<FakePeer> streams = master.acceptStreams();
            ASSERT_EQ(streams.size(), 2U);
            FakePeer& data = streams[master.dataAt];
            data.readLinesUpTo("99,");
            if (dataGoesFirst) data.reset();
            for (int i = 0; i < 50; ++i) dumpData("4,x\n", 4);
            if (!dataGoesFirst) received += recordsIn(data, 30);
            control.close();
            received += recordsIn(data);
            ASSERT_TRUE(eventually(
                [&] { return !app->data.data_thread_running && !app->autoSensor.autoSensor_thread_running; },
                60));
        }
        control.close();
        clockAheadUs += 60000000;
        if (minute == minutes / 3) {
            descriptors = descriptorsOf(::getpid());
            resident = residentKb(::getpid());
        }
    }
    stop();
    for (FakePeer& again : master.passedOver) received += recordsIn(again);
    EXPECT_LE(descriptorsOf(::getpid()), descriptors + 4);
    EXPECT_LT(residentKb(::getpid()) - resident, 2048 + kSanitizerGrowthKb);
    const VXBufferChain& chain = app->data.chain;
    EXPECT_EQ(received + chain.recordsDropped, chain.recordsAccepted);
}

INSTANTIATE_TEST_SUITE_P(Over, Failover, testing::Values("TCP", "WS", "WSS"));

class WebSocketLink : public Failover {};

TEST_P(WebSocketLink, IsBackAfterAConnectionThatBrokeAtAnyByteOfItsBeginning) {
    writeSettings(master.offer(), "# no backup\n");
    for (const Way way : {Way::kUp, Way::kDown}) {
        for (const std::int64_t bytes : {0, 1, 100, 250, 700}) {
            const int struck = master.relay.struck();
            const auto kind = bytes % 4 ? Fault::Kind::kCut : Fault::Kind::kReset;
            master.relay.add({.kind = kind, .way = way, .bytes = bytes});
            if (struck == 0) vxStartControlThread(app);
            const auto strikes = [&] {
                FakePeer broken = master.accept("", 0.05);  // it may come so far
                if (broken) master.reply(broken, master.offer() + ";" + std::string(2000, 'x'));
                return master.relay.struck() > struck;
            };
            ASSERT_TRUE(eventually(strikes, kPeerSeconds)) << bytes;
        }
    }
    EXPECT_TRUE(standing(master));
}

INSTANTIATE_TEST_SUITE_P(Over, WebSocketLink, testing::Values("WS", "WSS"));

}  // namespace
}  // namespace vx::test
