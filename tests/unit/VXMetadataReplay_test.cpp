#include "commonlibc/VXMetadataReplay.h"

#include <algorithm>

#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

using Records = std::vector<std::string>;

class MetadataReplay : public KnowledgeFixture {
protected:
    void SetUp() override {
        KnowledgeFixture::SetUp();
        hashMapForAgent();
    }
    mPP* method(const char* name, std::uint8_t type = kTypePlain, std::uint8_t subtype = 0,
                int updateFlag = 0) {
        return searchAndUpdateMethodHashMap(name, app->method.methodHashMapNode, updateFlag, type, subtype);
    }
    // Records of a kind lie in the order of a hash table.
    Records sortedRecords() {
        Records records = dumpedRecords(*app);
        std::sort(records.begin(), records.end());
        return records;
    }
};

TEST_F(MetadataReplay, WritesMethodsInUseAndThenLiveBts) {
    app->VXSys.maxIPCount = 1;
    markMethodUsed(method("used"));
    method("not used");
    method("asked for once", kTypeHttp, 3, 1);
    method("beyond the limit", kTypeHttp, 3, 1);  // filed under two keys, and told once
    btOf("/a");
    btOf("/stale")->isStale = 1;
    btOf("/no id yet")->btId = 0;
    clearDumped(*app);

    replayMetaData();
    EXPECT_EQ(dumpedRecords(*app).back(), "7,2,/a");
    EXPECT_EQ(sortedRecords(), (Records{"5,DB_SQLDB,2", "5,HTTP_asked for once,5", "5,Others,6",
                                        "5,Profiler.Zorvanek.BeginRequest,1", "5,used,3", "7,2,/a"}));
}

// Once, a chain that was full when a method or a BT was met left it without a name for the rest of the run.
TEST_F(MetadataReplay, WhatThereWasNoRoomForIsToldWithItsNextUse) {
    app->data.data_thread_running = 1;
    markMethodUsed(method("replayed"));
    btOf("/replayed");
    for (const bool replays : {false, true}) {
        closeDumping(*app);
        app->Server.testRunRunning = 1;  // and no node to write into
        if (replays) {
            replayMetaData();
        } else {
            markMethodUsed(method("new"));
            btOf("/new");
        }
        openDumping(*app);
        for (const char* name : {"replayed", "new"}) markMethodUsed(method(name));
        for (const char* name : {"/replayed", "/new"}) btOf(name);
        const Records expected = replays ? Records{"5,new,4", "5,replayed,3", "7,2,/replayed", "7,3,/new"}
                                         : Records{"5,new,4", "7,3,/new"};
        EXPECT_EQ(sortedRecords(), expected);
    }
    EXPECT_EQ(app->data.chain.recordsDropped, 0U) << "nothing was lost";
}

}  // namespace
}  // namespace vx::test
