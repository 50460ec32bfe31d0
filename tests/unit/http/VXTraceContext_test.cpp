#include "commonlibc/http/VXTraceContext.h"

#include "commonlibc/flowpath/VXFlowpathRecords.h"
#include "tests/support/header_fixture.h"

namespace vx::test {
namespace {

#define TRACE "0af7651916cd43dd8448eb211c80319c"
#define SPAN "b7ad6b7169203331"

TEST(TraceContext, ATraceparentIsTakenByTheRulesOfItsVersion) {
    const struct {
        const char* text;
        int flags;  // -1: malformed
    } rows[] = {
        {"00-" TRACE "-" SPAN "-01", 1},
        {"cc-" TRACE "-" SPAN "-ff", 255},
        {"cc-" TRACE "-" SPAN "-03-what-follows", 3},
        {"cc-" TRACE "-" SPAN "-03.", -1},
        {"00-" TRACE "-" SPAN "-01-more", -1},
        {"ff-" TRACE "-" SPAN "-01", -1},
        {"00-0AF7651916CD43DD8448EB211C80319C-" SPAN "-01", -1},
        {"00-00000000000000000000000000000000-" SPAN "-01", -1},
        {"00-" TRACE "-0000000000000000-01", -1},
        {"00-" TRACE "-" SPAN "-0x", -1},
        {"00-" TRACE "_" SPAN "-01", -1},
        {"", -1},
    };
    for (const auto& row : rows) {
        VXTraceContext context{"kept", "kept", 77};
        const bool good = vxParseTraceparent(row.text, context);
        EXPECT_EQ(good ? context.flags : -1, row.flags) << row.text;
        EXPECT_EQ(context.traceId + std::string("/") + context.parentId, good ? TRACE "/" SPAN : "kept/kept");
    }
}

TEST(TraceContext, ATracestateIsAListOfDifferentKeys) {
    std::string full, over;
    for (int i = 0; i < 33; ++i) (i < 32 ? full : over) += "k" + std::to_string(i) + "=v,";
    for (const std::string& good : {std::string("a=1"), std::string("a=1 , b@c= 2,,3t@s/y=x"), full})
        EXPECT_TRUE(vxTracestateIsValid(good)) << good;
    for (const std::string& bad :
         {std::string(" , "), std::string("a"), std::string("a=1,a=2"), std::string("A=1"), std::string("a="),
          std::string("a=b=c"), std::string("a=\x7F"), std::string("a@1=x"), std::string("=1"),
          std::string("k\0=1", 4), full + over, "a=" + std::string(257, 'v')})
        EXPECT_FALSE(vxTracestateIsValid(bad)) << bad;
}

TEST(TraceContext, B3NeedsATraceAndASpan) {
    const struct {
        const char *trace, *span, *parent, *sampled;
        int flags;  // -1: malformed
    } rows[] = {
        {TRACE, SPAN, "", "", 0},
        {SPAN, SPAN, SPAN, "1", 1},
        {TRACE, SPAN, "", "2", -1},
        {TRACE, SPAN, "12", "1", -1},
        {"", SPAN, "", "1", -1},
        {"0000000000000000", SPAN, "", "1", -1},
        {"B7AD6B7169203331", SPAN, "", "1", -1},
    };
    for (const auto& row : rows) {
        VXTraceContext context{};
        const bool good = vxParseB3({{}, {}, row.trace, row.span, row.parent, row.sampled, 0, 0}, context);
        EXPECT_EQ(good ? context.flags : -1, row.flags) << row.trace << ' ' << row.span << ' ' << row.sampled;
        EXPECT_STREQ(context.traceId, good ? row.trace : "");
    }
}

class TraceHeaders : public HeaderFixture {};

TEST_F(TraceHeaders, LandInTheHeaderRecordOfTheirFlowpath) {
    const struct {
        const char *switches, *text, *agentTrace, *tail;
    } rows[] = {
        {"1%201%201%201%201", "TraceParent= 00-" TRACE "-" SPAN "-01 &tracestate=a=1", "",
         "," TRACE "," SPAN ",01,"},
        {"1%201%201%201%201", "traceparent=00-" TRACE "-" SPAN "-01", "mine", ",mine,,00,"},
        {"1%201%201%201%201", "traceparent=bad&x-b3-traceid=" SPAN "&X-B3-SpanId=" SPAN, "",
         "," SPAN "," SPAN ",00,"},
        {"1%201%201%201%200", "traceparent=bad&X-B3-TraceId=" SPAN "&X-B3-SpanId=" SPAN, "", ",,,00,"},
        {"1%201%200%201%201", "traceparent=00-" TRACE "-" SPAN "-01", "", ",,,00,"},
        {"1%201%201%201%201", "traceparent=00-" TRACE "-" SPAN "-01&traceparent=00-" TRACE "-" SPAN "-01", "",
         ",,,00,"},
        {"1%200%201%201%201", "traceparent=00-" TRACE "-" SPAN "-01", "", ",,,,"},
        {"0%201%201%201%201", "traceparent=00-" TRACE "-" SPAN "-01", "", ",,,,"},
    };
    for (const auto& row : rows) {
        resetAllThreadLocals(slot);
        slot->flowpathInstance = 77;
        slot->tlBTObj = btOf("shop");
        vxFileSlot(slot, "77");
        keyword("enableOTELStandard", std::string(row.switches) + "%200%200%200%200");
        clearDumped(*app);
        headers("req", row.text, row.agentTrace);
        dumpFPHeaderRecord(slot, 12);
        const std::string record = dumpedText(*app);
        EXPECT_TRUE(record.ends_with(std::string(",-1") + row.tail + "0\n")) << row.text << '\n' << record;
    }
}

}  // namespace
}  // namespace vx::test
