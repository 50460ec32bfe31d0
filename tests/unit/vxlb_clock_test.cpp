#include "commonlibc/vxlb_clock.h"

#include <gtest/gtest.h>

#include "tests/support/fake_clock.h"

namespace vx {
namespace {

int sleepsUntilStop = 0;
bool stopped() {
    return sleepsUntilStop <= 0;
}

TEST(WatchingSleep, KeepsItsLengthAndEndsWithinASecondOfAStop) {
    test::FakeClock clock;
    clock.atSleep([] { --sleepsUntilStop; });
    sleepsUntilStop = 100;
    EXPECT_FALSE(vxlb_sleep_watching(2500000, stopped));
    EXPECT_FALSE(vxlb_sleep_watching(-5, nullptr));
    vxlb_sleep_us(-1);
    EXPECT_EQ(clock.sleptMs(), 2500);
    sleepsUntilStop = 3;
    EXPECT_TRUE(vxlb_sleep_watching(60000000, stopped));
    EXPECT_EQ(clock.sleptMs(), 5500);
    EXPECT_TRUE(vxlb_sleep_watching(60000000, stopped)) << "a stop that stands already";
    EXPECT_EQ(clock.sleptMs(), 5500);
}

}  // namespace
}  // namespace vx
