// Fixture: an instance with one agent process and a collector, whose far ends the test holds.
//
//     control socket --> collector, peer      (after connect(), or by a control thread of the test)
//     process 0      --> agentListener, agent
//     process 1      --> no connection
//
// Waits of the code under test are cut to a millisecond; its clock can be put ahead. Threads that a start
// made are ended with the test.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "commonlibc/NIOThread.h"
#include "commonlibc/Server.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXDataThread.h"
#include "commonlibc/VXInstrProfile.h"
#include "commonlibc/VXKeywords.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/flowpath/VXFlowpathStop.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/fake_collector.h"
#include "tests/support/home_fixture.h"
#include "tests/support/knowledge_fixture.h"
#include "tests/support/program.h"

namespace vx::test {

class LinkFixture : public HomeFixture {
protected:
    void SetUp() override {
        HomeFixture::SetUp();
        std::signal(SIGPIPE, SIG_IGN);
        clockAheadUs = wallAheadUs = 0;
        vxlb_set_clock_hooks({shiftedNow, shortSleep, nullptr, shiftedSteady});
        vxUpcalls.setdefaultValues = setdefaultValues;
        vxUpcalls.dumpFpFromBusyList = dumpFpFromBusyList;
        vxUpcalls.dumpNdDataOverRecord = dumpNdDataOverRecord;
        app->identity.isProxyInstance = 1;
        app->flowpath.fpi_tls_map = create_hashmap(app->pool);
        controlSockBufInit(*app);
        makeProcesses();
        vxMakeCollectorArray(*app);
        setPrimaryVXC("127.0.0.1", collector.port());
        vxSetCollectorState(0, 1);
        app->control.lws_active = 0;
        app->control.retryInterval = 1000;
    }
    void TearDown() override {
        app->control.proxyStopRequested = 1;
        EXPECT_TRUE(eventually(
            [&] { return !app->data.data_thread_running && !app->autoSensor.autoSensor_thread_running; }));
        vxJoinDataThread(*app);
        vxJoinAutoSensorThread(*app);
        vxlb_shared_close(app->control.controlSocket);
        vxlb_shared_close(processes[0].control);
        vxUpcalls = VXUpcalls{};
        vxlb_set_clock_hooks({});
        VXLB_FREE(app->identity.startInstrumentation, "start line", -1);
        VXLB_FREE(app->control.ctrlBufInfo.read_socket_buf, "control socket buffer", -1);
        VXLB_FREE(app->control.outbox.text, "control outbox", -1);
        makeInstrProfTableFree();
        VXLB_FREE(app->files.heldProfiles, "InstrProfTable", -1);
        for (kywdInfo_t& entry : app->files.kywdInfo) VXLB_FREE(entry.content, "file content", -1);
        vxFreeChain(app->data.chain);
        vxFreeChain(app->autoSensor.chain);
        vxFreeBtStore();
        freeMethodTable(*app);
        vxAggFree(app->exceptionMonitor.exceptionArr);
        HomeFixture::TearDown();
    }

    void makeProcesses() {
        for (processInfo_t& process : processes) {
            apr_thread_mutex_create(&process.sendMutex, APR_THREAD_MUTEX_NESTED, app->pool);
            apr_thread_mutex_create(&process.control.closeMutex, APR_THREAD_MUTEX_NESTED, app->pool);
        }
        app->identity.processInfo = table;
        app->identity.numProcess = 2;
        vxlb_shared_put(processes[0].control, connectTo(agentListener));
        agent = agentListener.accept();
        ASSERT_TRUE(agent);
    }
    // Gives the control thread's connection to the test's own thread.
    void connect() {
        vxlb_shared_put(app->control.controlSocket, connectTo(collector));
        peer = collector.accept();
        ASSERT_TRUE(peer);
    }
    apr_socket_t* connectTo(const FakeCollector& listener) {
        char error[kSockErrorSize];
        return vxlb_create_client_con("127.0.0.1", listener.port(), app->pool, 1000000, error);
    }
    // The next connection whose connect line begins with `prefix`, that line taken; the others wait.
    FakePeer acceptStream(const std::string& prefix, double seconds = kPeerSeconds) {
        const auto isWanted = [&](const auto& other) { return other.first.starts_with(prefix); };
        const auto deadline = deadlineIn(seconds);
        auto found = std::ranges::find_if(waiting_, isWanted);
        while (found == waiting_.end()) {
            FakePeer next = collector.accept(seconds);
            if (!next || std::chrono::steady_clock::now() > deadline) return FakePeer();
            std::string line = next.readLine();
            waiting_.emplace_back(std::move(line), std::move(next));
            found = std::ranges::find_if(waiting_, isWanted);
        }
        FakePeer wanted = std::move(found->second);
        waiting_.erase(found);
        return wanted;
    }
    static void handle(std::string line) { handleReceivedClientMessageFromVXCollector(line.data()); }
    std::string stored() const {
        const char* line = app->identity.startInstrumentation;
        return line ? line : "(none)";
    }
    // The next line that the agent gets, empty ones passed over.
    std::string toAgent(double seconds = kPeerSeconds) {
        std::string line;
        do line = agent.readLine(seconds);
        while (line.empty());
        return line;
    }

    FakeCollector collector, agentListener;
    FakePeer peer, agent;
    processInfo_t processes[2]{};
    processInfo_t* table[2]{&processes[0], &processes[1]};
    inline static std::atomic<std::int64_t> clockAheadUs{0};  // of the system's clocks
    inline static std::atomic<std::int64_t> wallAheadUs{0};   // of the wall's alone: it was set

private:
    std::vector<std::pair<std::string, FakePeer>> waiting_;

    static std::int64_t shiftedNow() {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::microseconds>(now).count() + clockAheadUs +
               wallAheadUs;
    }
    static std::int64_t shiftedSteady() {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::microseconds>(now).count() + clockAheadUs;
    }
    static void shortSleep(std::int64_t us) {
        ::usleep(static_cast<useconds_t>(std::min<std::int64_t>(us, 1000)));
    }
};

}  // namespace vx::test
