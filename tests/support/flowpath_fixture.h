// Fixture: an instance in a test run, with slots, a method table and business transactions, and a scripted
// clock. What is dumped can be read; every flowpath is captured.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "commonlibc/flowpath/VXFlowpathStop.h"
#include "commonlibc/flowpath/VXPerThreadData.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/fake_clock.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {

class FlowpathFixture : public KnowledgeFixture {
protected:
    static constexpr std::int64_t kBaseMs = 1'388'534'400'000;  // the instance's base
    static constexpr std::int64_t kNowMs = 600'000;             // the clock, in that base

    void SetUp() override {
        KnowledgeFixture::SetUp();
        hashMapForAgent();
        app->flowpath.fpi_tls_map = create_hashmap(app->pool);
        app->Server.zorEpochDiff = kBaseMs;
        vx_word_set(app->VXSys.bciInstrSessionPct, 100);
        readNow();
        clearDumped(*app);
    }
    void TearDown() override {
        vxDropBusyList();
        vxFreeSlotPools();
        KnowledgeFixture::TearDown();
    }

    // Unix microseconds of a time in the instance's base.
    static std::int64_t atMs(std::int64_t ms) { return (kBaseMs + ms) * 1000; }

    // What startFP and messages are called for came now.
    void readNow() const {
        app->decoder.readTimeUs = vxlb_now_us();
        app->decoder.readSteadyMs = vxlb_steady_ms();
    }
    // A busy slot of flowpath 77 that began at 5,000 ms on thread 9.
    vxTD* takeSlot() {
        vxTD* slot = get_free_tls_slot();
        resetAllThreadLocals(slot);
        slot->flowpathInstance = 77;
        slot->threadId = 9;
        slot->startTimeRel = 5000;
        slot->startTimeUs = atMs(5000);
        slot->startSteadyMs = clock.steadyMs() - (clock.nowMs() - kBaseMs - 5000);
        slot->tlIsFPCaptured = 1;
        return slot;
    }
    // The same with the BT "shop" (id 2); its 7 record is not among the dumped ones.
    vxTD* takeSlotWithBt() {
        vxTD* slot = takeSlot();
        slot->tlBTObj = btOf("shop");
        clearDumped(*app);
        return slot;
    }
    static void setBlob(vxTD* slot, const std::string& items) {
        slot->sequenceBlobLen = static_cast<std::int32_t>(items.copy(slot->sequenceBlob, kSequenceBlobSize));
    }
    static std::string blobOf(const vxTD* slot) {
        return {slot->sequenceBlob, static_cast<std::size_t>(slot->sequenceBlobLen)};
    }
    // The dumped records but those that name things (5 and 7).
    std::vector<std::string> flowpathRecords() const {
        std::vector<std::string> records = dumpedRecords(*app);
        std::erase_if(records, [](const std::string& record) {
            return record.starts_with("5,") || record.starts_with("7,");
        });
        return records;
    }

    FakeClock clock{kBaseMs + kNowMs};
};

using Records = std::vector<std::string>;

}  // namespace vx::test
