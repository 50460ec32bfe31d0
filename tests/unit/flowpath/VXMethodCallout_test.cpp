#include "commonlibc/flowpath/VXMethodCallout.h"

#include "commonlibc/backend/VXBackendNaming.h"
#include "tests/support/method_fixture.h"

namespace vx::test {
namespace {

// How an agent ends a call; 23 ms after the flowpath's start, after 7.999 ms.
struct End {
    const char* backend = nullptr;
    std::int64_t calloutSeq = 41;
    std::int32_t calloutDone = 1;
    std::int32_t status = 200;
};

class MethodCallout : public MethodFixture {
protected:
    VXMethodExitArguments argumentsOf(const std::string& name, const End& end) {
        slot->calloutSeq = end.calloutSeq;
        return {name.c_str(),    name.size(), -1,         end.status, end.backend, 7999, 0,
                end.calloutDone, "",          atMs(5023), 0};
    }
    void end(const std::string& name, const End& how) { vxMethodExit(slot, argumentsOf(name, how)); }
    void fail(const std::string& name, const End& how, std::int32_t exitType = 1) {
        vxMethodExitException(slot, argumentsOf(name, how), exitType);
    }
    // What a call of its own leaves, without the method's own items.
    std::string callOf(const std::string& name, const End& how) {
        enter(name);
        end(name, how);
        return calloutItems();
    }
    std::string calloutItems() {
        const std::string items = takeBlob();
        const auto first = items.find_first_of("TE");
        return first == items.npos ? "" : items.substr(first);
    }
    // "calls/errors/ms" of a back-end, "-" where there is none.
    std::string countsOf(const char* backend) {
        const mPP* record = getMethodPropFromMethodName(backend);
        const auto* counters = record ? vxAggSlot(app->method.backendArr, record->methodId) : nullptr;
        if (!counters || counters->mpp != record) return "-";
        return std::to_string(counters->callCount) + "/" + std::to_string(counters->errorCount) + "/" +
               std::to_string(counters->totalDuration);
    }
};

TEST_F(MethodCallout, AnHttpCallIsWrittenAndCountedWhereTheAgentMadeIt) {
    declare("Http.call", kMethodBackend, kTypeHttp, 3);
    enter("Http.call");
    end("Http.call", {.backend = "shop,1.example"});
    EXPECT_EQ(slot->httpCallOutDepth, 0);
    EXPECT_EQ(takeBlob(), "3:9_0_15__3:9_1_7____T41:4:7.999:1:-:23::::200_");
    EXPECT_EQ(callOf("Http.call", {.backend = "shop,1.example", .calloutDone = 0}), "");
    EXPECT_EQ(callOf("Http.call", {.backend = "shop,1.example", .calloutSeq = 0}), "");
    EXPECT_EQ(callOf("Http.call", {}), "") << "without a name there is no back-end";
    EXPECT_EQ(callOf("Http.call", {.backend = "shop,1.example", .status = 404}),
              "E41:4:7.999:1:-:23:404:::_");
    EXPECT_EQ(countsOf("HTTP_shop&#44;1&#46;example"), "2/1/14");
    EXPECT_EQ(callOf("Http.call", {.backend = std::string(70000, ',').c_str()}),
              "T41:5:7.999:1:-:23::::200_");
    vx_word_set(app->VXSys.otelEnabled, 1);
    app->Server.timeStampMask = app->Server.flowpathCounter = 0;
    app->Server.flowPathInstanceInitialID = 0xabc0;
    enter("Http.call");
    EXPECT_STREQ(slot->calloutKey, "abc1");
}

TEST_F(MethodCallout, OfNestedDatabaseCallsTheOuterOneCounts) {
    declare("Db.query", kMethodBackend, kTypeDb, 29);
    declare("Db.inner", kMethodBackend, kTypeDb, 29);
    enter("Db.query");
    enter("Db.inner");
    end("Db.inner", {.backend = "stock"});
    EXPECT_EQ(calloutItems(), "");
    end("Db.query", {.backend = "stock"});
    EXPECT_EQ(calloutItems(), "T3:5:7.999:10:0:23::::200:_");
    EXPECT_EQ(countsOf("MYSQL_stock"), "1/0/7");

    callOf("Db.query", {});
    EXPECT_EQ(countsOf("DB_MYSQL"), "1/0/7") << "what its kind is called without a name";
    declare("Db.odd", kMethodBackend, kTypeDb, 99);
    callOf("Db.odd", {});
    EXPECT_EQ(countsOf("Db.odd"), "1/0/7") << "the method stands in for its back-end";
    for (const bool excluded : {false, true}) {
        slot->tlIsFPCaptured = slot->tlIsFPExcluded = excluded;
        EXPECT_EQ(callOf("Db.query", {.backend = "stock"}), "");
        EXPECT_EQ(slot->tlSQLObj.DBCallDepth, 0);
    }
    EXPECT_EQ(countsOf("MYSQL_stock"), "1/0/7");
}

TEST_F(MethodCallout, AQueueWritesAsItsAgentSaysAndACustomMethodIsABackEndOfItsOwn) {
    declare("Mq.send", kMethodBackend, kTypeMq, 13);
    app->VXBCISetting.agentTypeCode = kAgentJava;
    EXPECT_EQ(callOf("Mq.send", {.backend = "orders"}), "T2:4:7.999:13:0:23::::200_");
    EXPECT_EQ(callOf("Mq.send", {.backend = "orders", .calloutSeq = 0}), "");
    app->VXBCISetting.agentTypeCode = kAgentPython;
    EXPECT_EQ(callOf("Mq.send", {.backend = "orders", .calloutSeq = 0}), "T5:4:7.999:13:0:23::::200_");
    EXPECT_EQ(countsOf("MQ_orders"), "3/0/21");

    mPP* method = declare("Custom.one", kMethodBackend | kMethodCustomBackend, kTypeCustom, 8);
    EXPECT_EQ(callOf("Custom.one", {.status = 500}), "E6:6:7.999:8:-:23:500:::_6:9_1_7____");
    EXPECT_EQ(countsOf("Custom.one"), "1/0/7");
    method->customBackend = declare("CUSTOM_one", kMethodCustomBackend, kTypeCustom, 8);
    callOf("Custom.one", {.backend = "partner"});
    EXPECT_EQ(countsOf("CUSTOM_one"), "1/0/7");
    EXPECT_EQ(countsOf("CUSTOM_partner"), "1/0/7") << "a made call is metered under its own name too";
}

TEST_F(MethodCallout, AnExceptionIsAnErrorOfItsBackEndAndLeavesTheEntryOpen) {
    declare("Db.query", kMethodBackend, kTypeDb, 29);
    declare("Http.call", kMethodBackend, kTypeHttp, 3);
    declare("Mq.send", kMethodBackend, kTypeMq, 13);
    enter("Db.query");
    enter("Http.call");
    enter("Mq.send");
    enter("A.a");
    takeBlob();
    fail("Mq.send", {.backend = "orders"});
    fail("Http.call", {.backend = "shop"});
    EXPECT_EQ(takeBlob(), "5:9_1_7____E41:8:7.999:1:-:23:503:::_4:9_1_7____");
    fail("Db.query", {.backend = "stock"}, 3);
    EXPECT_EQ(takeBlob(), "E3:9:7.999:10:0:23:503:::_3:9_1_7____");
    EXPECT_EQ(slot->tlSQLObj.DBCallDepth, 0);
    EXPECT_EQ(countsOf("MYSQL_stock"), "1/1/7");
    EXPECT_EQ(countsOf("MQ_orders"), "1/1/7");
    end("Db.query", {.backend = "stock"});
    EXPECT_EQ(slot->tlSQLObj.DBCallDepth, 0)
        << "and not below: the next inner call would pass for an outer one";
    enter("Db.query");
    takeBlob();
    EXPECT_EQ(callOf("Db.query", {.backend = "stock"}), "");

    slot->statusCode = 599;
    fail("A.a", {}, 2);
    EXPECT_EQ(takeBlob(), "");
    EXPECT_EQ(slot->statusCode, 599);
    leave("A.a");
    EXPECT_EQ(takeBlob(), "6:9_1_7____");
    fail("A.a", {});
    fail("Never.met", {});
    EXPECT_EQ(takeBlob(), "") << "no entry is open";
}

}  // namespace
}  // namespace vx::test
