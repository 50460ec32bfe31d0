#include "commonlibc/flowpath/VXPerThreadData.h"

#include <cstddef>
#include <cstring>

#include "commonlibc/flowpath/VXFlowpathGenerator.h"
#include "commonlibc/flowpath/VXFlowpathStop.h"
#include "commonlibc/flowpath/VXOpenMethods.h"
#include "tests/support/flowpath_fixture.h"

namespace vx::test {
namespace {

class Slots : public FlowpathFixture {
protected:
    // A busy slot of this flowpath, filed under its number.
    vxTD* file(std::int64_t flowpath) {
        vxTD* slot = takeSlotWithBt();
        slot->flowpathInstance = flowpath;
        vxFileSlot(slot, std::to_string(flowpath).c_str());
        return slot;
    }
    vxTD* find(const std::string& key) { return vxFindSlot(key.data(), key.size()); }
};

TEST_F(Slots, ResetReturnsEveryFieldButWhatBelongsToThePool) {
    constexpr std::size_t numbers = offsetof(vxTD, prevTierSeq);  // all of them stand in front of the texts
    vxTD* slot = takeSlot();
    resetAllThreadLocals(slot);
    unsigned char clean[numbers];
    std::memcpy(clean, static_cast<void*>(slot), numbers);

    std::memset(static_cast<void*>(slot), 0x5A, numbers);
    std::memcpy(&slot->tlsIdx, clean + offsetof(vxTD, tlsIdx), sizeof(slot->tlsIdx));
    std::memcpy(&slot->tlThreadId, clean + offsetof(vxTD, tlThreadId), sizeof(slot->tlThreadId));
    std::memcpy(static_cast<void*>(&slot->busySerial), clean + offsetof(vxTD, busySerial),
                sizeof(slot->busySerial));
    slot->inUse = 1;
    slot->methodTableHeld = 0;
    takeMethodTable(slot);
    for (char** text : {&slot->prevTierSeq, &slot->excepMessage, &slot->tlSQLObj.DBQueryParam})
        *text = vxlb_strdup("held");
    char* big[] = {slot->flowpathInstanceStr, slot->debugData,         slot->calloutKey,  slot->tlURl,
                   slot->uRLParameters,       slot->correlationHeader, slot->sequenceBlob};
    for (char* text : big) text[0] = 'x';
    resetAllThreadLocals(slot);
    for (std::size_t i = 0; i < numbers; ++i)
        EXPECT_EQ(reinterpret_cast<unsigned char*>(slot)[i], clean[i]) << "byte " << i;
    for (const char* text : big) EXPECT_EQ(*text, '\0');
    EXPECT_TRUE(!slot->prevTierSeq && !slot->tlSQLObj.DBQueryParam && !slot->tlMethodTable);
    EXPECT_EQ(app->method.methodHashMapNode.load()->flowpathCount, 0);
}

TEST_F(Slots, OpenMethodsAreCountedWhereverTheyStandAndForgottenByAReset) {
    vxTD* slot = takeSlot();
    constexpr std::uint32_t step = 131;  // 63 methods: more than the small table takes
    for (int round = 0; round < 2; ++round) {
        for (int entries = 0; entries < 2; ++entries)
            for (std::uint32_t id = 0; id < kCountedMethods; id += step) vxOpenMethod(*slot, id);
        EXPECT_NE(slot->methodEntryDirty, 0);
        EXPECT_FALSE(vxCloseMethod(*slot, 1));
        for (std::uint32_t id = 0; id < kCountedMethods; id += step) {
            EXPECT_TRUE(vxCloseMethod(*slot, id) && vxCloseMethod(*slot, id)) << id;
            EXPECT_FALSE(vxCloseMethod(*slot, id)) << id;
            vxOpenMethod(*slot, id);
        }
        resetAllThreadLocals(slot);
        for (std::uint32_t id = 0; id < kCountedMethods; id += step)
            EXPECT_FALSE(vxCloseMethod(*slot, id)) << id;
    }
}

TEST_F(Slots, AreFoundByTheirKeyUntilItIsFiledAgainOrReset) {
    const std::string longKey(100, 'k');
    vxTD* slot = file(12345);
    EXPECT_EQ(vxFindSlot("123456", 5), slot);
    EXPECT_EQ(find("1234"), nullptr);
    vxFileSlot(slot, longKey.c_str());
    EXPECT_TRUE(!find("12345") && find(longKey) == slot);
    reset(slot);
    EXPECT_EQ(find(longKey), nullptr);

    vxTD* former = file(5);
    slot = file(5);
    EXPECT_TRUE(find("5") == slot && !former->inUse);
    vxlb_copy_text(former->filedKey, sizeof(former->filedKey), "5");
    vxUnfileSlot(former);  // a stale key must not take the other slot's entry along
    EXPECT_EQ(find("5"), slot);
    EXPECT_TRUE(flowpathRecords().empty());
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 1);
}

TEST_F(Slots, TheEndOfATestEndsAllFlowpathsAndAStartDropsThem) {
    file(5);
    takeSlot();  // without a BT it leaves no record
    file(7)->fpEnded = 1;
    dumpFpFromBusyList();
    EXPECT_EQ(flowpathRecords(),
              (Records{"2,5,5,9,9.1,2,,,0,0,0,,7,-1,,,,5000", "4,5,200,12,0,595000,2,7,,0,"}));
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 0);

    file(6);
    app->Server.testRunRunning = 0;
    vxDropBusyList();
    EXPECT_EQ(VXSlotPool.gFreeTLSCnt, 64);
    EXPECT_EQ(vxlb_map_count(app->flowpath.fpi_tls_map), 0U);
    EXPECT_TRUE(flowpathRecords().empty());
}

}  // namespace
}  // namespace vx::test
