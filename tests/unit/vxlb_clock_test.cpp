#include "commonlibc/vxlb_clock.h"

#include <apr_general.h>
#include <gtest/gtest.h>

#include <set>

#include "tests/support/fake_clock.h"

namespace vx {
namespace {

int sleepsUntilStop = 0;
bool stopped() {
    return sleepsUntilStop <= 0;
}
void countSleep() {
    --sleepsUntilStop;
}

TEST(WatchingSleep, EndsWithinASecondOfAStop) {
    test::FakeClock clock;
    clock.atSleep(countSleep);
    sleepsUntilStop = 3;
    EXPECT_TRUE(vxlb_sleep_watching(60000000, stopped));
    EXPECT_EQ(clock.sleptMs(), 3000);
    EXPECT_TRUE(vxlb_sleep_watching(60000000, stopped)) << "a stop that stands already";
    EXPECT_EQ(clock.sleptMs(), 3000);
}

TEST(WatchingSleep, KeepsItsLengthWithoutAStop) {
    test::FakeClock clock;
    sleepsUntilStop = 1;
    EXPECT_FALSE(vxlb_sleep_watching(2500000, stopped));
    EXPECT_FALSE(vxlb_sleep_watching(1, nullptr));
    EXPECT_FALSE(vxlb_sleep_watching(-5, nullptr));
    EXPECT_EQ(clock.nowMs(), 1700000002500);
    vxlb_sleep_us(-1);
    EXPECT_EQ(clock.sleptMs(), 2500);
}

TEST(RandomBytes, DifferFromBatchToBatch) {
    apr_initialize();
    std::set<std::string> batches;
    for (int batch = 0; batch < 4; ++batch) {
        std::string bytes;
        for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(vxlb_random_byte()));
        EXPECT_GT(std::set<char>(bytes.begin(), bytes.end()).size(), 100u);
        batches.insert(bytes);
    }
    EXPECT_EQ(batches.size(), 4u);
    apr_terminate();
}

}  // namespace
}  // namespace vx
