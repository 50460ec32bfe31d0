#include <gtest/gtest.h>

#include "commonlibc/context/vx_application.h"
#include "dotnetagent/agent/vx_service.h"
#include "tests/support/fake_clock.h"

namespace vx::test {
namespace {

TEST(ServiceWorker, StartsAgainASecondAfterEveryReturnUntilTheStop) {
    static int calls = 0;
    const FakeClock clock;
    vxServiceWorker(g_ServiceStopEvent, [](const char*, int, const char*, const char*, int) {
        EXPECT_EQ(proxyServerFlag.exchange(0), 1) << "set before each call";
        if (++calls == 3) g_ServiceStopEvent.set();
    });
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(clock.sleptMs(), 2000);
    vxServiceWorker(g_ServiceStopEvent, [](const char*, int, const char*, const char*, int) { ++calls; });
    EXPECT_EQ(calls, 3) << "the stop came first";
}

}  // namespace
}  // namespace vx::test
