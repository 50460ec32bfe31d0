#include "commonlibc/control_outbox.h"

#include <string>
#include <thread>

#include "commonlibc/ServerDiagnostics.h"
#include "commonlibc/control_loop.h"
#include "commonlibc/vxlb_guard.h"
#include "tests/support/link_fixture.h"

namespace vx::test {
namespace {

class Outbox : public LinkFixture {
protected:
    void TearDown() override {
        endLoop();
        LinkFixture::TearDown();
    }
    // The control thread of a connection, from here on.
    void startLoop() {
        connect();
        app->control.heartBeatMissCount = 10;
        app->control.lastHeartBeatTime = vxlb_steady_ms();
        loop = std::thread([this] {
            vxSetCurrent(app);
            handle_msg_from_vxc(&app->control.ctrlBufInfo);
        });
        ASSERT_TRUE(eventually([&] {
            const VXGuard lock(app->control.outbox.mutex);
            return app->control.outbox.poll != nullptr;
        }));
    }
    void endLoop() {
        app->control.closeCtrlConFlag = 1;
        {
            const VXGuard lock(app->control.outbox.mutex);
            if (app->control.outbox.poll) apr_pollset_wakeup(app->control.outbox.poll);
        }
        if (loop.joinable()) loop.join();
    }
    bool put(const std::string& text) { return vxOutboxPut(*app, text.data(), text.size()); }
    std::uint64_t dropped() const { return app->control.outbox.dropped; }

    std::thread loop;
};

TEST_F(Outbox, TextsOfOtherThreadsGoOutWholeAndEndWithANewline) {
    EXPECT_FALSE(put("nobody reads yet"));
    EXPECT_EQ(dropped(), 1u);
    startLoop();
    EXPECT_TRUE(put("one\ntwo"));
    EXPECT_EQ(peer.readLine(), "one");
    EXPECT_EQ(peer.readLine(), "two");
    sendThreadDataToVXC(nullptr, std::string(kThreadDumpSize + 5, 'x').c_str(), nullptr, kThreadDumpSize);
    sendThreadDataToVXC(nullptr, "", nullptr, kThreadDumpSize);
    EXPECT_EQ(peer.readLine(), std::string(kThreadDumpSize - 1, 'x'));
    peer.send("vx_control_req:action=modify;\n");
    EXPECT_TRUE(peer.readLine().starts_with("vx_control_rep:")) << "the loop still reads";
}

TEST_F(Outbox, WhatASlowCollectorLeavesWaitsWholeAndInOrder) {
    startLoop();
    std::vector<std::string> taken;
    for (int i = 0; i < 400; ++i) {  // more than outbox and both sockets hold
        std::string text = std::to_string(i) + std::string(50000, 'x');
        if (put(text)) taken.push_back(std::move(text));
    }
    ASSERT_GT(dropped(), 0u);
    EXPECT_EQ(taken.size() + dropped(), 400u);
    peer.send("vx_control_req:action=modify;\n");
    for (const std::string& text : taken) ASSERT_EQ(peer.readLine(), text);
    EXPECT_TRUE(peer.readLine().starts_with("vx_control_rep:")) << "an answer stands behind them";
    EXPECT_TRUE(put("later"));
    EXPECT_EQ(peer.readLine(), "later");
}

TEST_F(Outbox, ACollectorThatNeverReadsCannotHoldTheLoopAndTheNextOneStartsAfresh) {
    startLoop();
    while (put(std::string(100000, 'x'))) continue;
    peer.send("vx_control_req:action=modify;\n");  // its answer waits behind the texts
    endLoop();
    EXPECT_FALSE(put("the connection has ended"));
    vxlb_shared_close(app->control.controlSocket);
    app->control.closeCtrlConFlag = 0;
    startLoop();
    EXPECT_TRUE(put("first"));
    EXPECT_EQ(peer.readLine(), "first");
}

}  // namespace
}  // namespace vx::test
