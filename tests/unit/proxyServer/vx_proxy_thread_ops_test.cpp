#include "commonlibc/proxyServer/vx_proxy_thread_ops.h"

#include <atomic>
#include <thread>

#include "commonlibc/flowpath/VXFlowpathGenerator.h"
#include "commonlibc/vxlb_decimal.h"
#include "commonlibc/vxlb_guard.h"
#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

constexpr std::int64_t kLimitMs = 10000;

class ResetQueue : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        setRule("1|1|Default|Complete-URL|-|0|-|-|-");
        vx_word_set(app->VXBCISetting.FPMaxAllowedAgeInSec, kLimitMs / 1000);
        woken = 0;
        ASSERT_TRUE(initializeThreadOperations(queue, app->pool, 0, countWake));
    }
    void TearDown() override {
        vxEndThreadOperations(queue);
        VXProxy.ceilings = {};
        FlowpathFixture::TearDown();
    }

    static void countWake(VXThreadOpsQueue& /*queue*/) { ++woken; }
    // As the decoder does it.
    vxTD* start(std::int64_t instance) {
        const VXGuard decode(app->decoder.decodeMutex);
        readNow();
        char number[24] = {};
        vxlb_put_decimal(number, instance);
        VXStartArguments arguments{};
        arguments.fpstr = number;
        arguments.url = "/shop";
        arguments.threadId = 9;
        vxTD* slot = startFP(arguments);
        if (slot) vxFileSlot(slot, slot->flowpathInstanceStr);
        return slot;
    }
    void end(vxTD* slot) {
        const VXGuard decode(app->decoder.decodeMutex);
        endFP(slot, 200, 0, 0, 0);
        reset(slot);
    }
    int queued() const { return queue.opCount; }
    void watchAfterSilence() {
        clock.advanceMs(kLimitMs + 1);
        markLongIdleTransactions();
    }
    void touch(vxTD* slot, std::int64_t idleMs = 0) { slot->lastActivityTime = clock.steadyMs() - idleMs; }

    VXThreadOpsQueue& queue = VXProxy.threadOps;
    inline static std::atomic<int> woken{0};
};

TEST_F(ResetQueue, AnAgentThatDiedLeavesItsTransactionReportedAndItsSlotFree) {
    start(77);
    vxTD* alive = start(78);
    clearDumped(*app);
    clock.setWall(3600000);
    markLongIdleTransactions();
    EXPECT_EQ(queued(), 0) << "a clock that is set is no silence";
    clock.setWall(-7200000);
    clock.advanceMs(kLimitMs + 1);
    touch(alive);
    markLongIdleTransactions();
    markLongIdleTransactions();  // queued already
    EXPECT_TRUE(queued() == 1 && woken == 1);

    processThreadOps(queue);
    ASSERT_EQ(flowpathRecords().size(), 2U);
    EXPECT_TRUE(flowpathRecords()[0].starts_with("2,77,") && flowpathRecords()[1].starts_with("4,77,"));
    EXPECT_TRUE(!vxFindSlot("77", 2) && vxFindSlot("78", 2) == alive);
    EXPECT_TRUE(app->flowpath.gBusyTLSCnt == 1 && queue.totalProcessed == 1 && queued() == 0);
}

TEST_F(ResetQueue, TheLimitIsThatOfTheSetting) {
    const int rows[][3] = {{10, 10000, 0}, {10, 10001, 1}, {0, 300000, 0}, {-5, 300001, 1}};
    for (const auto& [seconds, idleMs, expected] : rows) {
        vx_word_set(app->VXBCISetting.FPMaxAllowedAgeInSec, seconds);
        vxTD* slot = start(1);
        touch(slot, idleMs);
        markLongIdleTransactions();
        EXPECT_EQ(queued(), expected) << seconds << " s, idle " << idleMs;
        dropResetQueueOfInstance(app);
        slot->lastActivityTime = 0;  // taken this moment: never idle
        markLongIdleTransactions();
        EXPECT_EQ(queued(), 0);
        end(slot);
    }
}

TEST_F(ResetQueue, TheOwnerLooksAgain) {
    vxTD* ended = start(11);
    vxTD* moved = start(12);
    watchAfterSilence();
    ASSERT_EQ(queued(), 2);
    end(ended);
    vxTD* other = start(13);  // takes the slot that was queued
    ASSERT_EQ(other, ended);
    touch(moved);
    clearDumped(*app);
    processThreadOps(queue);
    EXPECT_TRUE(flowpathRecords().empty());
    EXPECT_TRUE(vxFindSlot("13", 2) == other && vxFindSlot("12", 2) == moved && !moved->queuedForReset);
    EXPECT_TRUE(queue.totalProcessed == 0 && queue.ignored == 2);

    // A slot that changed hands between the walk and the queue: its new transaction stays watched.
    queueFPResetThreadOps(other, other->busySerial - 1);
    processThreadOps(queue);
    EXPECT_TRUE(vxFindSlot("13", 2) == other && !other->queuedForReset);

    // Outside a run nothing is ended here: the stop does it.
    watchAfterSilence();
    app->Server.testRunRunning = 0;
    processThreadOps(queue);
    app->Server.testRunRunning = 1;
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 2);
    markLongIdleTransactions();  // nor is it forgotten
    EXPECT_EQ(queued(), 2);
}

TEST_F(ResetQueue, HoldsTwoThousandAndGivesTheOwnerTimeForHisSockets) {
    VXProxy.ceilings.maxSlots = 4096;
    constexpr int kStarted = kThreadOpsMax + 50;
    for (int i = 1; i <= kStarted; ++i) start(i);
    watchAfterSilence();
    markLongIdleTransactions();
    EXPECT_TRUE(queued() == kThreadOpsMax && queue.arrSize == kThreadOpsMax);
    woken = 0;
    processThreadOps(queue);
    EXPECT_TRUE(queued() == kThreadOpsMax - kThreadOpsTurn && woken == 1);
    dropResetQueueOfInstance(app);  // what is dropped is found again
    for (int i = 0; i < 2; ++i) {
        markLongIdleTransactions();
        while (queued() > 0) processThreadOps(queue);
    }
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 0);
    EXPECT_EQ(queue.totalProcessed, std::uint32_t{kStarted});
}

TEST_F(ResetQueue, AFunctionsSlotsGoToTheirWorker) {
    VXThreadOpsQueue worker{};
    ASSERT_TRUE(initializeThreadOperations(worker, app->pool, 3, nullptr));
    app->identity.isUDP = 1;
    for (const std::uint16_t index : {std::uint16_t{3}, std::uint16_t{4}}) start(index)->workerId = index;
    watchAfterSilence();
    EXPECT_TRUE(worker.opCount == 1 && queued() == 1);  // a worker that is not there: the listener's
    processThreadOps(worker);
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 1);
    vxEndThreadOperations(worker);
    EXPECT_EQ(VXProxy.workerOps[3], nullptr);
}

// Three threads at once, as in the service: one decodes, one watches, one owns the queue.
TEST_F(ResetQueue, TheWatchRunsBesideTheDecoder) {
    std::atomic<bool> stop{false};
    const auto onThread = [this, &stop](auto body) {
        return std::thread([this, &stop, body] {
            while (!stop) {
                vxSetCurrent(app);
                body();
            }
        });
    };
    std::thread watch = onThread([] { markLongIdleTransactions(); });
    std::thread owner = onThread([this] { processThreadOps(queue); });
    for (int i = 1; i <= 3000; ++i) {
        vxTD* slot = start(i);
        if (i % 3 != 0) end(slot);
        clock.advanceMs(kLimitMs / 16);
    }
    stop = true;
    watch.join();
    owner.join();
    watchAfterSilence();
    while (queued() > 0) processThreadOps(queue);
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 0);
}

}  // namespace
}  // namespace vx::test
