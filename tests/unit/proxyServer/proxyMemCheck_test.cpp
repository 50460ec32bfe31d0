#include "commonlibc/proxyServer/proxyMemCheck.h"

#include <chrono>
#include <filesystem>
#include <string>

#include "commonlibc/control_outbox.h"
#include "commonlibc/platform/vx_platform_memory.h"
#include "tests/support/fake_clock.h"
#include "tests/support/proxy_fixture.h"
#include "tests/support/trace_file.h"

namespace vx::test {
namespace {

class MemoryWatch : public ProxyFixture {
protected:
    void SetUp() override {
        ProxyFixture::SetUp();
        VXProxy.TotalSystemMemory = 4000;
        VXProxy.memUsageThresholdSizeMB = 512;
        VXProxy.memUsageThresholdPct = 20;
    }
    void TearDown() override {
        VXLB_FREE(app->control.outbox.text, "control outbox", -1);
        VXProxy.TotalSystemMemory = 0;
        ProxyFixture::TearDown();
    }
    std::string waiting() const {
        return {app->control.outbox.text, static_cast<std::size_t>(app->control.outbox.length)};
    }
    // As the control thread would: what waits goes out at once.
    static void takeFromOutbox() { vxCurrent()->control.outbox.length = 0; }
};

TEST_F(MemoryWatch, EndsTheProcessOnlyBeyondALimit) {
    EXPECT_FALSE(vxBeyondMemoryLimit(512));
    EXPECT_TRUE(vxBeyondMemoryLimit(513));
    VXProxy.memUsageThresholdSizeMB = 10240;
    EXPECT_FALSE(vxBeyondMemoryLimit(839));  // 20.97 %
    EXPECT_TRUE(vxBeyondMemoryLimit(840));

    checkMemoryUsage();
    VXProxy.TotalSystemMemory = 1;  // now everything is too much
    EXPECT_EXIT(checkMemoryUsage(), testing::ExitedWithCode(255), "");
    VXProxy.memThresholdCheckModes = 0;
    checkMemoryUsage();
    VXProxy.memThresholdCheckModes = 1;
    VXProxy.TotalSystemMemory = 0;
    checkMemoryUsage();
    vxLearnTotalMemory();
    EXPECT_GT(VXProxy.TotalSystemMemory, 0);
}

TEST_F(MemoryWatch, TellsOneCollectorAndWaitsTwoSecondsAtMost) {
    FakeClock clock;
    sendAlertToVXC(600);  // nobody is connected
    EXPECT_TRUE(clock.sleptMs() == 0 && waiting().empty());

    vxOutboxOpen(*app, VXProxy.pollset);
    sendAlertToVXC(600);
    EXPECT_EQ(clock.sleptMs(), 2000);
    EXPECT_EQ(waiting(),
              "agent_event:Version=1.0;Severity=1;Message=     ZorVXProxy used memory (600 MB) exceeded "
              "threshold.     Proxy will be restarted. MemoryThresholds: memThresholdCheckModes=1, "
              "memUsageThresholdPct=20, memUsageThresholdSizeMB = 512, TotalSystemMemory=4000 MB     \n");
    takeFromOutbox();
    clock.atSleep(takeFromOutbox);
    VXProxy.memThresholdCheckModes = 2;
    sendAlertToVXC(600);
    EXPECT_EQ(clock.sleptMs(), 2010);
    const std::string sent(app->control.outbox.text, 200);
    EXPECT_NE(sent.find("restarted( and generated proc dump). "), std::string::npos);
}

TEST_F(MemoryWatch, LeavesThreeDumpsAndThreeAnHour) {
    using namespace std::chrono_literals;
    namespace fs = std::filesystem;
    TempDir dir;
    EXPECT_TRUE(ShouldGenerateCoreDump((dir / "missing").c_str()));
    const auto dump = [&dir](const char* name, auto age) {
        fs::last_write_time(dir.write(name, "core"), fs::file_time_type::clock::now() - age);
    };
    dump("VXProxyService.1", 59min);
    dump("VXProxyService.2", 2min);
    dump("vx_trace.log_0", 10h);
    EXPECT_TRUE(ShouldGenerateCoreDump(dir.path().c_str()));
    dump("VXProxyService.3", 1min);
    EXPECT_FALSE(ShouldGenerateCoreDump(dir.path().c_str()));
    dump("VXProxyService.1", 61min);
    EXPECT_TRUE(ShouldGenerateCoreDump(dir.path().c_str()));
    dump("VXProxyService.4", -90min);  // a clock that went back
    dump("VXProxyService.5", -61min);
    dump("VXProxyService.3", -61min);
    EXPECT_TRUE(ShouldGenerateCoreDump(dir.path().c_str()));
    EXPECT_FALSE(fs::exists(dir / "VXProxyService.1") || fs::exists(dir / "VXProxyService.2"));
    EXPECT_TRUE(fs::exists(dir / "VXProxyService.3") && fs::exists(dir / "vx_trace.log_0"));
}

TEST(MemoryOfTheSystem, IsTheLeastLimitOfTheGroupsAbove) {
    TempDir dir;
    dir.write("root/memory.max", "max\n");
    dir.write("root/a/memory.max", "104857600\n");
    dir.write("root/a/b/memory.max", "max\n");
    dir.write("root/memory/x/memory.limit_in_bytes", "52428800\n");
    dir.write("root/memory/memory.limit_in_bytes", "9223372036854771712\n");
    const struct {
        const char* groups;
        std::int64_t limitMB;
    } rows[] = {
        {"0::/a/b\n", 100},
        {"0::/elsewhere\n", 0},  // what a container does not show
        {"12:cpu,cpuacct:/x\n4:memory:/x\n0::/\n", 50},
        {"4:memory\n::\nno group at all", 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(vx_cgroup_limit_mb(dir.write("cgroup", row.groups).c_str(), (dir / "root").c_str()),
                  row.limitMB)
            << row.groups;
    EXPECT_EQ(vx_cgroup_limit_mb((dir / "missing").c_str(), dir.path().c_str()), 0);
    EXPECT_GT(vx_platform_resident_mb(), 0);
}

}  // namespace
}  // namespace vx::test
