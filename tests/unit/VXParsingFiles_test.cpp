#include "commonlibc/VXParsingFiles.h"

#include <atomic>
#include <string>
#include <thread>

#include "tests/support/knowledge_fixture.h"
#include "tests/support/program.h"
#include "tests/support/trace_file.h"

namespace vx::test {
namespace {

using Records = std::vector<std::string>;

class MethodTexts : public KnowledgeFixture {
protected:
    void SetUp() override {
        KnowledgeFixture::SetUp();
        hashMapForAgent();
        table = app->method.methodHashMapNode;
    }
    static void deliver(void (*parser)(char*), std::string text) { parser(text.data()); }
    // What applies a text while the collector listens.
    void beginChange() {
        app->data.data_thread_running = 1;
        app->Server.runtimeChange = 1;
        app->Server.fileUpdatedAtRuntime = 0;
        clearDumped(*app);
    }
    // A text of callouts "m0" to "m<count - 1>".
    static std::string callouts(int count) {
        std::string text;
        for (int i = 0; i < count; ++i) text += "m|m" + std::to_string(i) + "|ORACLE|x\n";
        return text;
    }
    mPP* find(const std::string& name) { return getMethodPropFromMethodName(name.c_str()); }
    static std::uint32_t idOf(const mPP* method) { return method ? method->methodId.load() : 0; }

    methodHashMapNode_t* table = nullptr;
};

TEST_F(MethodTexts, AnEntryLineClassifiesItsMethod) {
    struct Row {
        const char* line;
        const char* name;  // null: no record
        int type, subtype;
        std::uint32_t flags;
    };
    constexpr std::uint32_t kBoth = kMethodEntryPoint | kMethodBackend;
    for (const Row& row :
         {Row{"m|a.B.c(int;string) void|HTTP_CALLOUT|1", "a.B.c", 1, 3, kBoth},
          Row{"m|crlf|MYSQL_CALLOUT|1\r", "crlf", 2, 29, kBoth},
          Row{"m|entry|CUSTOM_ENTRY|1|surplus", "entry", 6, 6, kMethodEntryPoint},
          Row{"m|log|CUSTOM_LOG:7|", "log", 83, 83, 0}, Row{"m|plain|HTTP_CALLOUTX|yes", "plain", 0, 0, 0},
          Row{"m|custom|CUSTOM_CALLOUTX|", "custom", 6, 8, kMethodBackend | kMethodCustomBackend},
          Row{"m|off|REDIS|01", nullptr, 0, 0, 0}, Row{"m|short|REDIS", nullptr, 0, 0, 0},
          Row{"m|(int)|REDIS|1", nullptr, 0, 0, 0}, Row{"#m|off|REDIS|1", nullptr, 0, 0, 0}}) {
        const std::uint32_t before = app->method.methodIdCounter;
        deliver(parseEntryFile, std::string("\n\r\n") + row.line);
        if (!row.name) {
            EXPECT_EQ(app->method.methodIdCounter, before) << row.line;
            continue;
        }
        const mPP* method = find(row.name);
        ASSERT_NE(method, nullptr) << row.line;
        EXPECT_EQ(method->type, row.type) << row.line;
        EXPECT_EQ(method->subtype, row.subtype) << row.line;
        EXPECT_EQ(method->isEntryPointPtr, row.flags) << row.line;
        if (row.flags & kMethodBackend) {
            EXPECT_EQ(vxAggSlot(app->method.backendArr, method->methodId)->mpp, method);
        }
    }
    const mPP* method = find("a.B.c");
    EXPECT_EQ(method->argumentCount, 2U);
    EXPECT_STREQ(method->arguments + 4, "string");
    EXPECT_STREQ(method->returnType, "void");
    EXPECT_EQ(find("log")->logLevel, 7);
    const std::uint32_t before = app->method.methodCount;
    deliver(parseEntryFile, "m|" + std::string(40000, 'n') + "|REDIS|1\nm|next|REDIS|1\n");
    EXPECT_EQ(app->method.methodCount, before + 1) << "an overlong line is passed over";
    EXPECT_NE(find("next"), nullptr);
}

TEST_F(MethodTexts, ATextThatComesAgainKeepsIdsAndResetsWhatItNoLongerNames) {
    deliver(parseEntryFile, "m|stays|REDIS|1\nm|goes|CUSTOM_CALLOUT|1\n");
    const std::uint32_t stays = idOf(find("stays")), goes = idOf(find("goes"));
    mPP* host = searchAndUpdateMethodHashMap("host", table, 1, kTypeHttp, 3);
    const std::uint32_t next = app->method.methodIdCounter;
    deliver(parseEntryFile, "m|stays|ORACLE|1\nm|goes|CUSTOM_CALLOUT|0\n");
    EXPECT_EQ(app->method.methodIdCounter, next);
    EXPECT_EQ(idOf(find("stays")), stays);
    EXPECT_EQ(idOf(find("goes")), goes);
    EXPECT_EQ(find("stays")->subtype, 28);
    EXPECT_EQ(find("stays")->isEntryPointPtr, kMethodEntryPoint | kMethodBackend);
    EXPECT_EQ(find("goes")->isEntryPointPtr, kMethodEntryPoint);
    EXPECT_EQ(find("goes")->subtype, 0);
    EXPECT_EQ(host->usedFlag, 0U);
    EXPECT_EQ(app->method.dbSqlDb.load()->isEntryPointPtr, kMethodBackend)
        << "never named, always a back-end";
}

TEST_F(MethodTexts, AMonitoredMethodKeepsWhatItIs) {
    deliver(parseEntryFile, "m|callout|REDIS|1\n");
    vxFindOrAddMethod(table, "plain", 5);
    deliver(parseMethodMonitor, "m|callout|C\nm|plain|P\nm|new|N\nm|short\nm||nameless\n");
    EXPECT_EQ(find("callout")->type, kTypeDb);
    EXPECT_EQ(find("callout")->isEntryPointPtr, kMethodEntryPoint | kMethodBackend | kMethodMonitored);
    for (const char* name : {"plain", "new"}) {
        mPP* method = find(name);
        EXPECT_EQ(method->type, kTypeMonitored) << name;
        EXPECT_EQ(method->isEntryPointPtr, kMethodMonitored) << name;
        EXPECT_EQ(vxAggSlot(app->method.methodArr, method->methodId)->mPP_, method) << name;
    }
    EXPECT_STREQ(find("plain")->aliasMethodName.get(), "P");
    EXPECT_EQ(find("short"), nullptr);
    deliver(parseMethodMonitor, "m|new|\n");
    EXPECT_EQ(find("plain")->isEntryPointPtr, 0U);
    EXPECT_EQ(find("new")->isEntryPointPtr, kMethodMonitored);
    EXPECT_EQ(find("new")->aliasMethodName.get(), nullptr);
}

TEST_F(MethodTexts, ARunTimeChangeTellsTheCollectorOnce) {
    deliver(parseEntryFile, "m|known|REDIS|1\n");
    beginChange();
    deliver(parseMethodMonitor, "m|monitored|\n");
    deliver(parseEntryFile, "m|late|REDIS|1\nm|known|REDIS|1\n");
    deliver(setMethodHashMapNode, "m|c|profiled|1|0\n");
    const Records records = dumpedRecords(*app);
    EXPECT_EQ(records.at(0), "11,5");
    EXPECT_EQ(
        std::multiset<std::string>(records.begin() + 1, records.end()),
        (std::multiset<std::string>{"5,DB_SQLDB,2", "5,Profiler.Zorvanek.BeginRequest,1", "5,known,3"}));

    clearDumped(*app);  // what the replay could not know is told with its first use
    for (const char* name : {"monitored", "late", "known", "c.profiled"}) markMethodUsed(find(name));
    EXPECT_EQ(dumpedRecords(*app), (Records{"5,monitored,4", "5,late,5", "5,c.profiled,6"}));
}

TEST_F(MethodTexts, NoMethodIsMadeBeyondTheCeilingAndOneLineTellsIt) {
    const TraceFile trace(*app, 1);
    VXProxy.ceilings.maxMethods = 5;
    deliver(parseEntryFile, callouts(10));
    EXPECT_TRUE(find("m2") && !find("m3"));
    EXPECT_EQ(vxFindOrAddMethod(table, "reported", 8), nullptr);
    EXPECT_EQ(searchAndUpdateMethodHashMap("host", table, 1, kTypeHttp, 3), nullptr);
    deliver(parseMethodMonitor, "m|x|\nm|m1|alias\n");
    deliver(setMethodHashMapNode, "m|c|x|1|1\n");
    EXPECT_EQ(app->method.methodCount, 5U);
    EXPECT_EQ(find("m1")->isEntryPointPtr & kMethodMonitored, kMethodMonitored);
    VXProxy.ceilings = {};
    EXPECT_EQ(occurrences(trace.text(), "maxMethods = 5"), 1);
}

// Lines are applied in portions: in between, running transactions must not see a back-end without its flag,
// and methods that agents report meanwhile are neither lost nor told twice.
TEST_F(MethodTexts, AgentsGoOnWhileATextIsReadAndToldOf) {
    constexpr int kKnown = 3000, kReported = 2000;
    closeDumping(*app);
    openDumping(*app, 64);
    deliver(parseEntryFile, callouts(kKnown));
    beginChange();
    const mPP* last = find("m" + std::to_string(kKnown - 1));
    std::atomic<bool> done{false};
    std::atomic<int> unflagged{0};
    std::thread agent([&] {
        vxSetCurrent(app);
        for (int i = 0; i < kReported || !done; ++i) {
            const std::string name = "agent" + std::to_string(i % kReported);
            markMethodUsed(vxFindOrAddMethod(table, name.c_str(), name.size()));
            if (!(last->isEntryPointPtr & kMethodBackend)) ++unflagged;
        }
    });
    deliver(parseEntryFile, callouts(kKnown));
    done = true;
    agent.join();
    EXPECT_EQ(unflagged, 0);

    clearDumped(*app);
    app->Server.fileUpdatedAtRuntime = 0;
    deliver(parseMethodMonitor, "");
    std::set<std::string> told;
    for (const std::string& record : dumpedRecords(*app)) EXPECT_TRUE(told.insert(record).second) << record;
    EXPECT_EQ(told.size(), 1 + 2 + kReported) << "the 11 record, the fixed methods, those in use";
}

}  // namespace
}  // namespace vx::test
