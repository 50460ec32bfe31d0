#include "commonlibc/vxbt/vxbt_bt_object.h"

#include <thread>
#include <vector>

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

class BtObject : public KnowledgeFixture {
protected:
    BTObject* declare(const char* name, std::int32_t id, std::int32_t slow = 100,
                      std::int32_t verySlow = 200) {
        BTObject* object = find_bt_obj_in_config_map(name, id, slow, verySlow, -1, -1);
        checkAndIncrementAggrBTDataArray(object);
        return object;
    }
    BTObject* inManager(const char* name) { return find_bt_obj_in_manager_map(name); }
    void connect() {
        app->Server.instrumentationStarted = 1;
        app->data.data_thread_running = 1;
    }
};

TEST_F(BtObject, NewNamesTakeIdsThatNoRuleHasGivenAndAreAnnouncedOnce) {
    declare("declared", 3);
    EXPECT_EQ(btOf("/a")->btId, 4);
    EXPECT_EQ(btOf("Others")->btId, kBtIdOthers);
    EXPECT_EQ(btOf("/b")->btId, 5);
    EXPECT_EQ(btOf("/a"), inManager("/a"));
    EXPECT_TRUE(btOf("/a")->slowThreshold == 3000 && btOf("/a")->verySlowThreshold == 5000);
    EXPECT_EQ(dumpedText(*app), "7,4,/a\n7,1,Others\n7,5,/b\n");
    EXPECT_EQ(vxAggSlot(app->bt.aggDataArr, 3)->btObj, inManager("declared"));
    EXPECT_EQ(vxAggSlot(app->bt.aggDataArr, 5)->btObj, inManager("/b"));
    char empty[8] = "";
    EXPECT_EQ(updateBTObject(empty), nullptr);
}

TEST_F(BtObject, NamesBeyondTheCeilingAreOthers) {
    parseMaxBTCount("3");
    for (const char* refused : {"0", "abc", "-4", ""}) parseMaxBTCount(refused);
    btOf("/a");
    btOf("/b");
    BTObject* others = btOf("/c");
    EXPECT_EQ(others->btId, kBtIdOthers);
    EXPECT_EQ(btOf("/d"), others);
    EXPECT_EQ(dumpedText(*app), "7,2,/a\n7,3,/b\n7,1,Others\n");
    EXPECT_EQ(vxAggSlot(app->bt.aggDataArr, kBtIdOthers)->btObj, others);
    parseMaxBTCount("99999999999");
    EXPECT_EQ(app->bt.max_bt_count, 2147483647);
    EXPECT_EQ(btOf("/d")->btId, 4);
}

TEST_F(BtObject, ALongNameCountsWithItsFirst256CharactersAndLeavesOneLine) {
    const std::string name = "a\r\n" + std::string(300, 'x');
    BTObject* object = btOf(name);
    EXPECT_EQ(std::string(object->btName), name.substr(0, 256));
    EXPECT_EQ(btOf(name), object);
    EXPECT_EQ(dumpedText(*app), "7,2,a  " + std::string(253, 'x') + "\n") << "one line";
}

TEST_F(BtObject, ANewConnectionAndARuleChangeAnnounceAgain) {
    btOf("/a");
    clearBtMetaDataFlags();
    btOf("/a");
    {
        VXGuard guard(app->bt.btMapMutex);
        reset_BTObjMap(1);
    }
    btOf("/a");
    EXPECT_EQ(dumpedText(*app), "7,2,/a\n7,2,/a\n7,2,/a\n");
}

TEST_F(BtObject, ADeclaredObjectChangesAndIsAnnouncedOnlyWhileConnected) {
    BTObject* object = declare("nine", 9, 100, 200);
    declare("nine", -1, 1, 2);
    EXPECT_EQ(object->slowThreshold, 100);
    connect();
    declare("nine", -1, 1, 2);
    EXPECT_TRUE(object->slowThreshold == 1 && object->verySlowThreshold == 2 &&
                app->bt.allSlowThreshold == 1);
    EXPECT_EQ(object->btId, 9) << "a negative id declares nothing";

    app->bt.applicableRule = kPatternRule;
    declare("new", 11);
    declare("nine", 9);
    declare("nine", 10);
    app->Server.runtimeChange = 1;
    declare("nine", 12);
    EXPECT_EQ(dumpedText(*app), "7,11,new\n7,10,nine\n");
}

TEST_F(BtObject, TheSameNameOnManyThreadsIsOneObject) {
    std::vector<BTObject*> found(4);
    std::vector<std::thread> threads;
    for (BTObject*& object : found)
        threads.emplace_back([this, &object] {
            vxSetCurrent(app);
            for (int i = 0; i < 50; ++i) object = btOf("/" + std::to_string(i));
        });
    for (std::thread& thread : threads) thread.join();
    for (BTObject* object : found) EXPECT_EQ(object, found.front());
    EXPECT_EQ(app->bt.total_bt_count, 51);
    EXPECT_EQ(dumpedRecords(*app).size(), 50U);
}

}  // namespace
}  // namespace vx::test
