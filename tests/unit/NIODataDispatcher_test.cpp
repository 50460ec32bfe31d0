#include "commonlibc/NIODataDispatcher.h"

#include <string>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/app_fixture.h"

namespace vx::test {
namespace {

class AutoSensorChain : public AppFixture {
protected:
    void SetUp() override {
        AppFixture::SetUp();
        app->Server.testRunRunning = 1;
        sizes(4, 2, 3);
    }
    void TearDown() override {
        vxFreeChain(app->autoSensor.chain);
        AppFixture::TearDown();
    }
    void sizes(int size, int step, int most) {
        vx_word_set(app->VXSys.ASDataBufferSize, size);
        vx_word_set(app->VXSys.ASDataBufferMinCount, step);
        vx_word_set(app->VXSys.ASDataBufferMaxCount, most);
    }
    int add(const std::string& text) {
        return dumpASData(text.data(), static_cast<std::int64_t>(text.size()));
    }
    VXBufferChain& chain() { return app->autoSensor.chain; }
};

TEST_F(AutoSensorChain, GrowsByNeedUpToItsMaximumAndCountsWhatFindsNoRoom) {
    EXPECT_EQ(add("ab\n"), 0);  // nobody has made a node before
    EXPECT_EQ(app->autoSensor.curBuffers, 2);
    EXPECT_EQ(add("cd\n"), 0);      // straddles
    EXPECT_EQ(add("efg\nh\n"), 0);  // needs the third, the last one allowed
    EXPECT_EQ(app->autoSensor.curBuffers, 3);
    EXPECT_EQ(add("i\n"), 1);
    EXPECT_EQ(add("j\nk\n"), 1);
    EXPECT_EQ(chain().recordsAccepted, 4u);
    EXPECT_EQ(chain().recordsDropped, 3u);
    EXPECT_EQ(app->VXSys.dataDropCount, 2u);
    moveCommonPartialToReadList();
    EXPECT_EQ(buff_list_init_as(), 2);
    EXPECT_EQ(vxDiscardChain(chain()), 4u);  // of a former run
    EXPECT_EQ(chain().recordsDropped, 7u);
    EXPECT_EQ(buff_list_init_as(), 0);
    EXPECT_EQ(add("l\n"), 0);
}

TEST_F(AutoSensorChain, RefusesOutsideARunAndTakesDefaultsForSettingsBelowOne) {
    app->Server.testRunRunning = 0;
    EXPECT_EQ(add("ab\n"), 1);
    EXPECT_EQ(chain().recordsDropped, 0u);
    sizes(0, -1, 0);
    EXPECT_EQ(buff_list_init_as(), 0);
    EXPECT_EQ(app->autoSensor.curBuffers, 2);
    EXPECT_EQ(chain().writeListHead->buff_size, 262144);
}

}  // namespace
}  // namespace vx::test
