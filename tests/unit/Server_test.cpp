#include "commonlibc/Server.h"

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "commonlibc/control_lws.h"
#include "tests/support/fake_clock.h"
#include "tests/support/link_fixture.h"
#include "tests/support/trace_file.h"

namespace vx::test {
namespace {

const std::string kAutoSensorLine = "auto_sensor_thread_hotspot_data_req:";
const std::string kStart =
    "vx_control_req:action=start_instrumentation;status=running;bciDataBufferMaxCount=4;"
    "bciDataBufferMaxSize=4096;";
const std::string kStop = "vx_control_req:action=stop_instrumentation;status=";
const std::string kStarted = "vx_control_rep:action=start_instrumentation;status=starting;result=Ok;";
const std::string kStopped = "vx_control_rep:action=stop_instrumentation;status=stopping;result=Ok;";
const std::string kRefused =
    "vx_control_rep:result=Error:<Unable to process modify message because of stop instrument recieved or "
    "startInstrument not recieved.";

class Server : public LinkFixture {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        connect();
    }
    // Accepts the data connection of a start and reads up to its 99 record.
    FakePeer acceptData() {
        FakePeer data = acceptStream("vx_data_msg_req:");
        EXPECT_EQ(data.readLinesUpTo("99,").back(), "99,NewConnection,FPGVersion:1.0");
        return data;
    }
};

TEST_F(Server, AHeartbeatGoesOnToTheAgentsAndOrdersConnectionsClosed) {
    app->VXSys.dataConnState = app->VXSys.autosensorConnState = 1;
    app->control.heartBeatSent = 4;
    handle("vx_control_req:action=reconnect;heartBeat 3;dataConnState=0;AutosensorConnState=0;");
    EXPECT_EQ(toAgent(),
              "vx_control_req:action=reconnect;heartBeat 3;dataConnState=0;AutosensorConnState=0;");
    EXPECT_EQ(app->VXSys.dataConnState, 0);
    EXPECT_EQ(app->VXSys.autosensorConnState, 0);
    EXPECT_EQ(app->control.heartBeatSent, 0) << "any line is a sign of life";
    handle("vx_control_req:action=reconnect;dataConnState=1");  // too few fields for states
    EXPECT_EQ(app->VXSys.dataConnState, 0);
}

// A start behind a refused reply, in the same bytes, once set the agents going over no connection.
TEST_F(Server, WhatFollowsARefusedReplyIsNotActedOn) {
    vxlb_shared_close(app->control.controlSocket);
    app->control.lws_active = 1;
    ctrlBufInfo_t& info = app->control.ctrlBufInfo;
    const std::string text = "no reply\n" + kStart + "\n";
    info.readBytes = info.writeOffset = static_cast<std::int32_t>(text.size());
    std::memcpy(info.read_socket_buf, text.c_str(), text.size() + 1);
    EXPECT_EQ(handle_msg_from_vxc_lws(&info), 1);
    EXPECT_EQ(app->Server.numRunning, 0);
    EXPECT_EQ(stored(), "(none)");
}

TEST_F(Server, AMetadataRequestRepeatsWhatItNames) {
    const std::string request = "vx_meta_data_req:action=send_meta_data;";
    handle(request);
    EXPECT_EQ(peer.readLine(), "vx_meta_data_rep:action=send_meta_data;result=Error :<No test running.>");
    hashMapForAgent();
    openDumping(*app);
    VXBTConfigModelInit();
    char bt[kBtNameBufferSize] = "/a";
    updateBTObject(bt);
    for (const auto& [fields, methods, bts] : {std::tuple("", true, true),
                                               {"recordType=7,7;", false, true},
                                               {"5;112", true, false},
                                               {"types=112", false, false}}) {
        clearDumped(*app);
        handle(request + fields);
        EXPECT_EQ(peer.readLine(), "vx_meta_data_rep:status=complete;");
        const std::string text = "\n" + dumpedText(*app);
        EXPECT_EQ(text.find("\n5,") != std::string::npos, methods) << fields << text;
        EXPECT_EQ(text.find("\n7,2,/a\n") != std::string::npos, bts) << fields << text;
    }
    closeDumping(*app);
}

TEST_F(Server, AStartRunsAStopEndsAndASecondStartIsLikeTheFirst) {
    for (int run = 1; run <= 2; ++run) {
        handle(kStart + "zorEpochDiff=1600000000;TimeStampDiff=500;tierID=7;testIdx=4;");
        EXPECT_EQ(peer.readLine(), kStarted);
        EXPECT_EQ(toAgent(), stored());
        EXPECT_EQ(app->Server.zorEpochDiff, 1600000000000 - 500);
        EXPECT_EQ(getTierID(), 7);
        EXPECT_EQ(app->Server.numRunning, 1);
        FakePeer data = acceptData();

        handle(kStop + "stopping;");
        EXPECT_EQ(peer.readLine(), kStopped);
        EXPECT_EQ(toAgent(), kStop + "stopping;");
        EXPECT_TRUE(data.readToEnd().ends_with("10,\n")) << run;
        EXPECT_EQ(stored(), "(none)");
        EXPECT_EQ(app->Server.instrumentationStarted + app->Server.numRunning, 0);
    }
}

TEST_F(Server, AStartIsGivenUpWhenAThreadOfTheFormerRunWillNotEnd) {
    FakeClock clock;
    app->data.data_thread_running = 1;  // a thread that never ends
    handle(kStart);
    EXPECT_EQ(clock.sleptMs(), 15000);
    EXPECT_EQ(app->control.closeCtrlConFlag, 1);
    EXPECT_EQ(app->Server.instrumentationStarted + app->Server.numRunning, 0);
    app->data.data_thread_running = 0;
}

TEST_F(Server, ARepeatedStartIsIgnoredWhileBothThreadsAndConnectionsStand) {
    handle(kStart);
    FakePeer data = acceptData(), sensor = acceptStream(kAutoSensorLine);
    EXPECT_EQ(peer.readLine(), kStarted);
    ASSERT_TRUE(eventually([&] { return app->data.dataSocket.get() && app->autoSensor.asSocket.get(); }));
    const TraceFile trace(*app, 1);
    handle(kStart);
    EXPECT_TRUE(trace.says("ignoring start_instrumentation"));
    EXPECT_EQ(peer.readLine(0.05), kNoLine);
    EXPECT_FALSE(sensor.ended(0.05));
}

TEST_F(Server, AModifyIsRelayedAndRefusedBeforeAStartAppliedAndMergedForLateJoinersInARun) {
    const std::string modify = "vx_control_req:action=modify;tierID=9;";
    handle(modify);
    EXPECT_EQ(toAgent(), modify);
    EXPECT_EQ(peer.readLine(), kRefused);
    EXPECT_EQ(getTierID(), 0);
    EXPECT_EQ(stored(), "(none)");
    handle(kStart + "tierID=7;");
    EXPECT_EQ(peer.readLine(), kStarted);
    handle(modify);
    EXPECT_EQ(peer.readLine(), "vx_control_rep:action=modify;result=Ok;");
    EXPECT_EQ(getTierID(), 9);
    EXPECT_EQ(stored(), kStart + "tierID=9;");
    handle("vx_control_req:action=modify;enableAutoInstrSession=1;tierID=8;");  // of a session: not merged
    EXPECT_EQ(getTierID(), 8);
    EXPECT_EQ(stored(), kStart + "tierID=9;");
    vxlb_shared_shutdown(app->control.controlSocket);
    handle(modify);
    EXPECT_EQ(app->control.closeCtrlConFlag, 1) << "an answer that cannot be sent";
}

TEST_F(Server, AMergeTakesTheValuesOfTheChange) {
    const struct {
        const char *stored, *change, *merged;
    } rows[] = {
        {"act;a=1;b=2;", "action=modify;b=3;", "act;a=1;b=3;"},
        {"act;a=1;", "action=modify;a=2;a=3;", "act;a=3;"},
        {"act;a=1;", "action=modify;a=;", "act;a=;"},
        {"act;ab=1;", "action=modify;a=2;", "act;ab=1;a=2;"},
        {"act;word;a=1", "action=modify;other;a=2", "act;word;a=2;"},
        {"act;numInstrProfile=2;instrProfile=p;lmd=1;size=2;instrProfile=q;lmd=3;size=4;z=1;",
         "action=modify;numInstrProfile=1;instrProfile=r;lmd=5;size=6;z=2;",
         "act;numInstrProfile=1;instrProfile=r;lmd=5;size=6;z=2;"},
        {"act;numInstrProfile=1;instrProfile=p;lmd=1;size=2;z=1;", "action=modify;z=2;",
         "act;numInstrProfile=1;instrProfile=p;lmd=1;size=2;z=2;"},
        {"act;z=1;", "action=modify;numInstrProfile=1;instrProfile=r;lmd=5;size=6;",
         "act;z=1;numInstrProfile=1;instrProfile=r;lmd=5;size=6;"},
        {"act;a=1;", "action=", "act;a=1;"},
    };
    for (const auto& row : rows) {
        VXLB_FREE(app->identity.startInstrumentation, "start line", -1);
        app->identity.startInstrumentation = vxlb_strdup(row.stored);
        update_instrument_profile(row.change);
        EXPECT_EQ(stored(), row.merged) << row.stored << ' ' << row.change;
    }
    std::string doubled = "act;";
    for (int i = 0; i < 400; ++i) doubled += "a=1;";  // each of them would take the long value
    VXLB_FREE(app->identity.startInstrumentation, "start line", -1);
    app->identity.startInstrumentation = vxlb_strdup(doubled.c_str());
    update_instrument_profile(("action=modify;a=" + std::string(1000, 'x')).c_str());
    EXPECT_EQ(stored(), doubled) << "a merge that would grow without end is refused";
}

}  // namespace
}  // namespace vx::test
