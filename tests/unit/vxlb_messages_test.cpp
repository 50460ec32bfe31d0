#include "commonlibc/vxlb_messages.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/flowpath_fixture.h"
#include "tests/support/record_stream.h"

namespace vx {
namespace {

using namespace test;

constexpr std::int64_t kNowUs = 1700000000000000;
constexpr std::int64_t kSecond = 1000000;

// A filed slot, 77, at a fixed time.
class Messages : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        app->Server.zorEpochDiff = 0;
        clock.advanceMs(kNowUs / 1000 - clock.nowMs());
        slot = fileSlot("77", kNowUs);
    }
    vxTD* fileSlot(const char* key, std::int64_t startTimeUs) {
        vxTD* taken = get_free_tls_slot();
        resetAllThreadLocals(taken);
        taken->flowpathInstance = std::atoll(key);
        taken->startTimeUs = startTimeUs;
        taken->startSteadyMs = clock.steadyMs() - (kNowUs - startTimeUs) / 1000;
        vxFileSlot(taken, key);
        return taken;
    }
    vxTD* find(const char* key) const { return vxFindSlot(key, std::strlen(key)); }
    unsigned filed() const { return vxlb_map_count(app->flowpath.fpi_tls_map); }
    // True when the message reached the slot: its activity is that of the read.
    bool reaches(const std::string& frame) {
        slot->lastActivityTime = 0;
        readBytes(*app, frame);
        return slot->lastActivityTime.load() != 0;
    }

    vxTD* slot = nullptr;
};

std::string fullEntry() {
    return frameOf(MethodEntryEncode,
                   VXMethodEntryRecord{0, 77, 0, 0, wire("m"), wire("/u"), wire("x=1"), wire("q")});
}
std::string fullExit() {
    return frameOf(MethodExitEncode,
                   VXMethodExitRecord{0, 0, 0, 0, 0, 0, 77, 0, 0, 0, wire("m"), wire("be"), wire("p")});
}
std::string fullException() {
    return frameOf(ExceptionEncode, VXExceptionRecord{4, 77, 5, 6, wire("C"), wire("mess"), wire("Th"),
                                                      wire("me"), wire("ca"), wire("st")});
}
std::string httpFrame(const char* type) {
    return frameOf(transactionEncodeHttp, VXHttpRecord{201, 3, 9, 77, wire("A: b"), wire(type), wire("id"),
                                                       wire("parent"), wire("k=v")});
}
// A NUL in place of the byte at `offset` of the body.
std::string torn(std::string frame, std::size_t offset) {
    frame[14 + offset] = '\0';
    return frame;
}

// Offsets are those of the length fields in the body; the newline counts as a byte that may be claimed.
TEST_F(Messages, LengthsDecideWhetherAMessageIsTaken) {
    const std::string entry = fullEntry(), exit = fullExit(), http = httpFrame("req");
    const struct {
        const char* name;
        std::string frame;
        bool reaches;
    } rows[] = {
        {"entry", entry, true},
        {"entry with the newline claimed", patched(entry, 40, 2), true},
        {"entry one byte too long", patched(entry, 40, 3), false},
        {"entry with a negative name", patched(entry, 28, -1), false},
        {"entry with a sum beyond 32 bits", patched(patched(entry, 28, INT32_MAX), 32, INT32_MAX), false},
        {"entry torn in its url", torn(entry, 46), false},
        {"entry torn in its last string", torn(entry, 50), false},
        {"exit", exit, true},
        {"exit one byte too long", patched(exit, 56, 3), false},
        {"exit with a negative phase", patched(exit, 56, -1), false},
        {"exit torn in its name", torn(exit, 76), true},
        {"exit torn in its backend", torn(exit, 78), false},
        {"exit torn in its phase", torn(exit, 79), true},
        {"exception one byte too long", patched(fullException(), 24, 4), false},
        {"exception with a negative cause", patched(fullException(), 20, -7), true},
        {"headers one byte too long", patched(http, 4, 4 + 3 + 12 + 2), false},
        {"headers with a negative type", patched(http, 8, -1), true},
        {"headers with a trace state too long", patched(http, 28, INT32_MAX), true},
        {"thrown one byte too long", patched(thrownFrame(77, "m"), 8, 2), false},
        {"thrown with a negative backend", patched(thrownFrame(77, "m"), 8, -2), true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(reaches(row.frame), row.reaches) << row.name;
        EXPECT_EQ(app->decoder.partialLength, 0) << row.name;
    }
    // Of each type the length of the fixed part, and where the flowpath stands in it.
    constexpr std::pair<std::int32_t, std::size_t> kFixedParts[] = {{44, 4}, {76, 32}, {56, 24}, {32, 4},
                                                                    {8, 0},  {52, 28}, {40, 32}, {52, 12}};
    for (std::int32_t type = 0; const auto& [length, flowpath] : kFixedParts) {
        const std::string body(static_cast<std::size_t>(length - 2), '\0');
        const std::string frame = rawFrame(12, 14 + length - 1, type, body + "\n");
        EXPECT_FALSE(reaches(patched(frame, flowpath, 77))) << type++;
    }
    EXPECT_EQ(filed(), 1U);
}

TEST_F(Messages, AStartIsRefusedByItsLengthsAlone) {
    const std::string start = startFrame(78, "/url", kNowUs);
    readBytes(*app, patched(start, 4, -1) + patched(start, 20, 2));
    EXPECT_EQ(filed(), 1U);
    readBytes(*app, torn(start, 57));  // a NUL is allowed: the URL ends there
    ASSERT_TRUE(find("78"));
    EXPECT_STREQ(find("78")->tlURl, "/");
}

TEST_F(Messages, RequestHeadersReplaceTheTraceFieldsAndResponsesDoNot) {
    for (auto* settings : {&app->http.request, &app->http.response}) settings->captureLevel = 3;
    app->Server.isTenRecordDump = 1;
    slot->tlBTObj = btOf("shop");
    clearDumped(*app);
    readBytes(*app, httpFrame("res"));
    EXPECT_EQ(slot->OTL_traceID, nullptr);
    EXPECT_EQ(slot->traceState, 0);
    readBytes(*app, httpFrame("req") + httpFrame("req"));
    EXPECT_STREQ(slot->OTL_parentID, "parent");
    EXPECT_EQ(slot->traceFlag, 3);
    EXPECT_EQ(slot->traceState, 9);
    // The last string may claim more than there is and ends before the newline; missing ones change nothing.
    readBytes(*app, patched(httpFrame("req"), 28, 500) + patched(patched(httpFrame("req"), 20, 0), 28, -3));
    EXPECT_STREQ(slot->OTL_tracestate, "k=v");
    EXPECT_STREQ(slot->OTL_traceID, "id");
    // What would swell a slot or shift the fields of a record is no trace.
    const std::string wide(65, 'a'), list(513, 'k');
    readBytes(*app, frameOf(transactionEncodeHttp,
                            VXHttpRecord{201, 3, 9, 77, wire("A"), wire("req"), wire(wide.c_str()),
                                         wire("par,ent"), wire(list.c_str())}));
    EXPECT_STREQ(slot->OTL_traceID, "id");
    EXPECT_STREQ(slot->OTL_parentID, "idpare");
    EXPECT_STREQ(slot->OTL_tracestate, "k=v");
    EXPECT_EQ(dumpedText(*app), "13,77,201,\n12,77,\n12,77,\n12,77,\n12,77,\n12,77,\n");
}

// 300 seconds are not too old, 301 are; the sweep runs at most once in that time.
TEST_F(Messages, AResetSweepsOutOldFlowpathsOnceInFiveMinutes) {
    clock.setWall(3600000);
    app->Server.lastSweepTimeMs = clock.steadyMs() - 300000;
    for (int i = 0; i < 200; ++i) fileSlot(std::to_string(1000 + i).c_str(), kNowUs - 301 * kSecond);
    fileSlot("50", kNowUs - 300 * kSecond);
    fileSlot("51", 0);
    readBytes(*app, resetFrame(77));
    EXPECT_EQ(filed(), 202U);
    EXPECT_FALSE(find("77"));
    app->Server.lastSweepTimeMs = clock.steadyMs() - 301000;
    readBytes(*app, resetFrame(1000));
    EXPECT_EQ(filed(), 2U);
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 2);
    EXPECT_EQ(app->Server.lastSweepTimeMs, clock.steadyMs());
    EXPECT_EQ(dumpedText(*app), "");
}

// From the encoder through the engine to the records that go out.
TEST_F(Messages, ATransactionBecomesItsRecords) {
    const std::int64_t flowpath = 4611686018427387904;
    readBytes(*app, startFrame(flowpath, "/shop/cart?id=1|GET", kNowUs) +
                        entryFrame(flowpath, "Shop.Cart.show", kNowUs + 2000) +
                        exitFrame(flowpath, "Shop.Cart.show", 30000, kNowUs + 32000) +
                        endFrame(flowpath, 200, kNowUs + 40000));
    EXPECT_EQ(dumpedText(*app),
              "7,2,/shop/cart\n"
              "2,4611686018427387904,1700000000,1,1.1,2,/shop/cart?id=1,,4611686018427387904,0,0,,0,0,,,,"
              "1700000000000\n"
              "4,4611686018427387904,200,10,0,40,2,0,,0,1:0_0_0__3:1_0_2__3:1_1_30_0___1:0_1_40_0___\n");
    EXPECT_FALSE(find("4611686018427387904"));
    EXPECT_EQ(app->flowpath.gBusyTLSCnt, 1);
}

}  // namespace
}  // namespace vx
