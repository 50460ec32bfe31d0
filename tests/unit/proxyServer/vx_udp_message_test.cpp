#include "commonlibc/proxyServer/vx_udp_message.h"

#include <malloc.h>

#include <thread>

#include "commonlibc/proxyServer/vx_udp_ruckus.h"
#include "commonlibc/proxyServer/vx_udp_settings.h"
#include "commonlibc/proxyServer/vx_udp_watchers.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/program.h"
#include "tests/support/trace_file.h"
#include "tests/support/udp_fixture.h"

namespace vx::test {
namespace {

using std::string;

class UdpMessages : public UdpFixture {
protected:
    // A function in a test run; its context.
    vxApplication& running(std::int32_t index = 0) {
        datagram(introduced(VXWrapType::kHeartbeat, "pay"));
        EXPECT_EQ(answer(), "Heart Beat Received");
        vxApplication& made = *function(index);
        made.Server.testRunRunning = 1;
        made.Server.epochDiffGiven = 1;
        return made;
    }
    // A message of the collector of a context.
    void collectorSays(vxApplication& context, string line) {
        vxSetCurrent(&context);
        HandleVexalineMessage(line.data());
        vxSetCurrent(app);
    }
};

TEST_F(UdpMessages, AFunctionLivesFromItsFirstDatagramToItsSilence) {
    vxApplication& pay = running();
    EXPECT_EQ(string(pay.identity.funcName) + pay.identity.lookupKey + pay.identity.agentType,
              "payreq-paygo");
    EXPECT_TRUE(pay.identity.isUDP && pay.identity.numProcess == 1 && processAt(pay, 0)->pid == 0);
    datagram(introduced(VXWrapType::kPendingRuckus, "pay"), 0);
    EXPECT_EQ(answer(), "AppIndex:0");
    EXPECT_EQ(VXProxy.numUDPFunctions, 1);
    datagram(introduced(VXWrapType::kRuckusResponse, "other"));
    EXPECT_EQ(function(1), nullptr) << "an answer makes no function";

    clock.advanceMs(kUdpDefaultTimeoutS * 1000);
    clock.setWall(3600000);
    proxy_udp_client_handler(1);
    EXPECT_EQ(function(0), &pay) << "silent for just the time";
    clock.advanceMs(1);
    clock.setWall(-7200000);
    proxy_udp_client_handler(2);
    EXPECT_TRUE(!function(0) && VXProxy.numUDPFunctions == 0 && !pay.identity.funcName);
    datagram(wrapped(VXWrapType::kHeartbeat, 0));
    EXPECT_EQ(answer(0), "(none)") << "the old index names nobody";

    EXPECT_EQ(&running(), &pay) << "the block serves the next function";
    EXPECT_EQ(pay.udp.lastActivityMs, clock.steadyMs());
}

TEST_F(UdpMessages, RecordsOfAFunctionFindTheirFlowpathByTheRequest) {
    vxApplication& pay = running();
    const std::int64_t now = clock.nowMs() * 1000;
    datagram(wrapped(VXWrapType::kRecords, 0, startFrame(11, "/pay", now)) +
             wrapped(VXWrapType::kRecords, 0, endFrame(12, 200, now + 1000)));
    EXPECT_EQ(pay.flowpath.gBusyTLSCnt, 0) << "the end is that of the request, whatever its number";
    EXPECT_EQ(pay.decoder.messagesRefused, 0U);

    datagram(wrapped(VXWrapType::kRecords, 0, startFrame(11, "/pay", now)));
    EXPECT_EQ(pay.flowpath.gBusyTLSCnt, 1);
    datagram(wrapped(VXWrapType::kCookieValue, 0));
    EXPECT_TRUE(answer().starts_with("VXcookieValue:11-0-")) << "the session that this request began";
    pay.decoder.partialLength = 5;
    datagram(wrapped(VXWrapType::kRecords, 0, entryFrame(11, "a.b", now).substr(0, 20) + "\n"));
    EXPECT_EQ(pay.decoder.partialLength, 5) << "what a TCP read left is not touched";
    pay.decoder.partialLength = 0;

    clock.advanceMs(kUdpDefaultTimeoutS * 1000 + 1);
    proxy_udp_client_handler(1);
    EXPECT_EQ(VXSlotPool.taken, 0) << "its slots are free again";
}

TEST_F(UdpMessages, ClientsAttachThemselvesToAnInstance) {
    Agent agent = process(4711);
    collectorSays(instance(), "VexalineMessage 2.0;RKMID=7;duration=1;");
    clock.advanceMs(3001);
    proxy_udp_ruckus_handler(1);
    EXPECT_EQ(vxlb_map_count(instance().ruckusMap), 0U) << "though nobody has come for it";
    for (int time = 0; time < 2; ++time) {
        datagram(introduced(VXWrapType::kPendingRuckus, "", 1));
        EXPECT_EQ(answer(), "AppIndex:1");
        EXPECT_EQ(VXProxy.numUDPAttached, 1);
    }
    datagram(introduced(VXWrapType::kHeartbeat, "", 1, "appName=other;tierName=Web_1;"));
    EXPECT_EQ(answer(0), "(none)");

    instance().Server.testRunRunning = 1;
    datagram(wrapped(VXWrapType::kRecords, 1, startFrame(11, "/", 1000), 1, 4242));
    datagram(wrapped(VXWrapType::kRecords, 1, startFrame(12, "/", 1000), 1, 4243));
    EXPECT_STREQ(instance().identity.lookupKey, "4243");
    EXPECT_NE(search_hashmap("4242", instance().flowpath.fpi_tls_map), nullptr);
    datagram(wrapped(VXWrapType::kRecords, 1, endFrame(11, 200, 2000), 1, 0));
    EXPECT_EQ(instance().flowpath.gBusyTLSCnt, 2) << "neither type nor key: refused";
    for (const std::int32_t index : {-2, 0, 2, 31, 32, 1 << 30}) {
        datagram(wrapped(VXWrapType::kHeartbeat, index, "", 1));
        datagram(wrapped(VXWrapType::kHeartbeat, index, "", 0));
    }
    EXPECT_EQ(answer(0), "(none)");
    vxSetCurrent(&instance());
    vxUdpFreeClients(instance());
    vxSetCurrent(app);
}

TEST_F(UdpMessages, FunctionsBeyondTheCeilingAreRefusedAndCounted) {
    VXProxy.ceilings.maxUdpFunctions = 3;
    const TraceFile trace(*app, 1);
    const auto refusedBefore = VXUdp.functionsRefused;
    for (int i = 0; i < 5; ++i) datagram(introduced(VXWrapType::kHeartbeat, "pay" + std::to_string(i)));
    EXPECT_EQ(VXProxy.numUDPFunctions, 3) << "the table of two has grown";
    EXPECT_EQ(VXUdp.functionsRefused - refusedBefore, 2U);
    for (int i = 0; i < 3; ++i) EXPECT_NE(function(i), nullptr);
    for (int round = 1; round <= 12; ++round) proxy_udp_client_handler(round);
    const string told = "UDP functions refused: ";
    EXPECT_TRUE(trace.says(told) && trace.text().find(told) == trace.text().rfind(told));
}

TEST_F(UdpMessages, WhatIsRefusedOrLostIsToldAsANumberOnceAMinute) {
    const TraceFile trace(*app, 1);
    for (int i = 0; i < 100; ++i) datagram(wrapped(VXWrapType::kHeartbeat, 7));
    EXPECT_EQ(occurrences(trace.text(), "Failed to process data from client.."), 20);
    proxy_udp_client_handler(6);
    EXPECT_TRUE(trace.says("UDP messages refused: 100 (+100)"));
    datagram(wrapped(VXWrapType::kHeartbeat, 7));
    EXPECT_EQ(occurrences(trace.text(), "Failed to process data from client.."), 21);

    VXProxy.proxyPort = portOf(VXUdp.socket);
    VXUdp.lostTold = 0;
    for (int i = 0; i < 1000; ++i) send(string(1000, 'x'));
    proxy_udp_client_handler(12);
    proxy_udp_client_handler(18);
    char buffer[2000];
    VXDatagramRoom rooms[7];
    for (VXDatagramRoom& room : rooms) room.buffer = buffer;
    int held = 0;
    for (int got = 0; got >= 0; got = vx_platform_udp_receive(VXUdp.socket, rooms, 7, sizeof(buffer), false))
        held += got;
    const string lost = std::to_string(1000 - held);
    EXPECT_TRUE(trace.says("UDP datagrams lost for want of room: " + lost + " (+" + lost + ")"));
    EXPECT_EQ(occurrences(trace.text(), "UDP datagrams lost"), 1);
    EXPECT_GT(held, 10);
}

TEST_F(UdpMessages, AContextRemembersAsManyClientsAsItMay) {
    vxApplication& pay = running();
    for (int port = 2000; port < 2000 + kMaxUdpClients + 20; ++port) {
        clock.advanceMs(1);
        datagram(wrapped(VXWrapType::kRecords, 0), static_cast<std::uint16_t>(port));
    }
    EXPECT_EQ(vxlb_map_count(pay.identity.udpClientMap), static_cast<unsigned>(kMaxUdpClients));
    EXPECT_EQ(pay.udp.clientsReplaced, 21U);
    datagram(wrapped(VXWrapType::kHeartbeat, 0));
    EXPECT_EQ(answer(), "Heart Beat Received") << "the one that was replaced first is heard again";
}

TEST_F(UdpMessages, TheSettingsAreAnsweredByParts) {
    vxApplication& pay = running();
    vx_word_set(pay.VXBCISetting.tierID, 7);
    pay.VXBCISetting.testRunIndex = 1234;
    setSharedText(pay.retired, pay.session.vxCookieName, "VX\xff\"");
    const string session =
        R"("VXCookie",{"enableVXSession":0,"CookieName":"VX?\"","DomainName":"","headerInResponse":0,"mpos":0,)"
        R"("maxFPCountInSession":0,"vxSessionIdleTimeOutSecs":1800})";
    const string keyWord = R"("KWCookie",{"KWCookieName":"ZorKW"})";
    datagram(wrapped(VXWrapType::kSessionCookie, 0));
    EXPECT_EQ(answer(), "[" + session + "]");
    datagram(wrapped(VXWrapType::kKeyWordCookie, 0));
    EXPECT_EQ(answer(), "[" + keyWord + "]");
    datagram(wrapped(VXWrapType::kSettings, 0));
    EXPECT_EQ(answer(), R"(["AppId",{"id":0},"TierInfo",{"tierID":7,"AppServerID":0,"appID":0},"TestInfo",)"
                        R"({"TestNumber":1234,"bciInstrSessionPct":0,"captureMethodForAllFP":0},)" +
                            session + "," + keyWord +
                            R"(,"CorelationHeader",{"corelationheader":""},"BackendNameRule",)"
                            R"({"BackendNameRuleValue":"0-0-0-0"},"otel",{"otelkeyword":0},)"
                            R"("enableDBBackendName",{"enableDBBackendName":0}])");
}

TEST_F(UdpMessages, RuckusMessagesWaitForNewClientsUntilTheirTimeIsOver) {
    vxApplication& pay = running();
    vxSetCurrent(&pay);
    const TraceFile trace(pay, 1);
    const string line = "VexalineMessage 2.0;RKMID=7;duration=60;funcName=pay;vxAppServerHost=host7;";
    collectorSays(pay, line);
    collectorSays(pay, "VexalineMessage 2.0;RKMID=8;duration=60;funcName=refund;");
    collectorSays(pay, "VexalineMessage 2.0;");
    EXPECT_EQ(answer(), line);
    EXPECT_EQ(answer(0), "(none)");
    EXPECT_TRUE(trace.says("RKMID is missing in message VexalineMessage 2.0;"));

    datagram(wrapped(VXWrapType::kHeartbeat, 0));
    EXPECT_EQ(answer(), "Heart Beat Received" + line);
    datagram(wrapped(VXWrapType::kRuckusResponse, 0, "^RKMID=7;status=Done;"));
    EXPECT_TRUE(trace.says("Got response from agent RKMID=7;status=Done;"));
    clock.advanceMs(62'000);
    clock.setWall(3600000);
    proxy_udp_ruckus_handler(1);
    EXPECT_EQ(vxlb_map_count(pay.ruckusMap), 2U) << "just its duration and two seconds";
    clock.advanceMs(1);
    proxy_udp_ruckus_handler(2);
    EXPECT_EQ(vxlb_map_count(pay.ruckusMap), 0U);
    EXPECT_TRUE(trace.says("removing record of ruckus message for RKMID 7 "));
    datagram(wrapped(VXWrapType::kRuckusResponse, 0, "^RKMID=7;"));
    EXPECT_TRUE(trace.says("Ruckus message expired for RKMID 7"));

    for (int i = 0; i < 100; ++i)
        collectorSays(pay, "VexalineMessage 2.0;RKMID=m" + std::to_string(i) + ";duration=60;");
    EXPECT_EQ(vxlb_map_count(pay.ruckusMap), 64U);
}

// What one function leaves behind would show after some hundreds.
TEST_F(UdpMessages, ManyShortLivesLeaveTheMemoryAsItWas) {
    const auto live = [this](int functions) {
        for (int i = 0; i < functions; ++i) {
            const std::int64_t now = clock.nowMs() * 1000;
            running();
            datagram(
                wrapped(VXWrapType::kRecords, 0, startFrame(11, "/pay", now) + entryFrame(11, "a.b.c", now)));
            collectorSays(*function(0), "VexalineMessage 2.0;RKMID=7;duration=6000;");
            answer();
            clock.advanceMs(kUdpDefaultTimeoutS * 1000 + 1);
            proxy_udp_client_handler(1);
        }
        return static_cast<std::int64_t>(mallinfo2().uordblks);
    };
    const std::int64_t before = live(20);
    EXPECT_NEAR(static_cast<double>(live(300)), static_cast<double>(before), 10'000);
    EXPECT_EQ(VXSlotPool.taken, 0);
}

// Workers hand datagrams to a function that the watcher takes away again and again.
TEST_F(UdpMessages, FunctionsEndUnderTheHandsOfSeveralWorkers) {
    std::atomic<bool> over{false};
    std::vector<std::thread> workers;
    for (std::uint16_t port = 1; port <= 3; ++port)
        workers.emplace_back([this, port, &over] {
            for (int i = 0; !over; ++i) {
                vxSetCurrent(app);
                const string bytes = introduced(VXWrapType::kHeartbeat, "pay") +
                                     wrapped(VXWrapType::kRecords, 0, startFrame(11, "/", 1000)) +
                                     wrapped(VXWrapType::kSettings, 0) +
                                     wrapped(VXWrapType::kRecords, 0, endFrame(11, 200, 2000));
                decode_udp_Message_wrapper(bytes.data(), static_cast<std::int32_t>(bytes.size()),
                                           {0x7F000001, port});
            }
        });
    for (int i = 0; i < 100; ++i) {
        vxSetCurrent(app);
        vxUdpEndSilentFunctions(clock.steadyMs() + 3'600'000);
        std::this_thread::yield();
    }
    over = true;
    for (std::thread& worker : workers) worker.join();
    clock.advanceMs(3'600'000);
    vxUdpEndSilentFunctions(clock.steadyMs());
    EXPECT_EQ(VXProxy.numUDPFunctions, 0);
    vxSetCurrent(app);
}

}  // namespace
}  // namespace vx::test
