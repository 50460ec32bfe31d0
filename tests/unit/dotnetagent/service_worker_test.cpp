#include <gtest/gtest.h>

#include "commonlibc/context/vx_application.h"
#include "dotnetagent/agent/vx_service.h"
#include "tests/support/fake_clock.h"

namespace vx::test {
namespace {

int calls = 0;

class ServiceWorker : public testing::Test {
protected:
    void SetUp() override {
        calls = 0;
        proxyServerFlag = 0;
        proxyStopFlag = 0;
    }
    void TearDown() override {
        g_ServiceStopEvent.reset();
        proxyStopFlag = 0;
    }
};

TEST_F(ServiceWorker, DoesNotStartWhenTheStopCameFirst) {
    g_ServiceStopEvent.set();
    vxServiceWorker(g_ServiceStopEvent, [](const char*, int, const char*, const char*, int) { ++calls; });
    EXPECT_EQ(calls, 0);
}

TEST_F(ServiceWorker, StartsAgainASecondAfterEveryReturnUntilTheStop) {
    const FakeClock clock;
    vxServiceWorker(g_ServiceStopEvent,
                    [](const char* pool, int type, const char* process, const char* agent, int flags) {
                        EXPECT_STREQ(pool, "DotNetAgent");
                        EXPECT_EQ(type, 3);
                        EXPECT_STREQ(process, "ProxyName");
                        EXPECT_STREQ(agent, "proxy");
                        EXPECT_EQ(flags, 0);
                        EXPECT_EQ(proxyServerFlag.exchange(0), 1) << "set before each call";
                        if (++calls == 3) g_ServiceStopEvent.set();
                    });
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(clock.sleptMs(), 2000);
}

TEST_F(ServiceWorker, OnlyAStopControlWhileRunningStops) {
    const FakeClock clock;
    vxServiceControl(kServiceControlStop);
    EXPECT_FALSE(g_ServiceStopEvent.isSet()) << "not running yet";
    const int code = vxServiceMain([](const char*, int, const char*, const char*, int) {
        EXPECT_EQ(vxServiceState(), VXServiceState::kRunning);
        if (++calls == 1) {
            vxServiceControl(kServiceControlStop + 1);
            EXPECT_EQ(proxyStopFlag, 0);
            return;
        }
        vxServiceControl(kServiceControlStop);
        EXPECT_EQ(proxyStopFlag, 1);
        EXPECT_EQ(vxServiceState(), VXServiceState::kStopPending);
    });
    EXPECT_EQ(code, 0);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(vxServiceState(), VXServiceState::kStopped);
}

}  // namespace
}  // namespace vx::test
