#include "commonlibc/VXLosses.h"

#include <string>

#include "tests/support/app_fixture.h"
#include "tests/support/fake_clock.h"
#include "tests/support/trace_file.h"

namespace vx::test {
namespace {

TEST_F(AppFixture, LossesAreToldOnceAMinuteWhileTheyGrowAndAtTheEndOfARun) {
    std::atomic<vxApplication*> table[2]{nullptr, app};
    VXProxyInstance = table;
    VXProxy.numInstance = 2;
    FakeClock clock(1000);
    const TraceFile trace(*app, 1);
    const auto lines = [&] {
        std::string found;
        const std::string text = trace.text();
        for (std::size_t at = text.find("Losses: "); at != std::string::npos;
             at = text.find("Losses: ", at + 1))
            found += text.substr(at + 8, text.find('\n', at) - at - 8) + "|";
        return found;
    };
    const auto nextMinute = [&] {
        clock.advanceMs(60000);
        vxLossesWalk();
    };
    vxLossesWalk();
    nextMinute();
    EXPECT_EQ(lines(), "");  // nothing was lost
    app->data.chain.recordsDropped = 2;
    app->autoSensor.chain.recordsDropped = 1;
    app->flowpath.startsRefused = 4;
    nextMinute();
    std::string expected = "records = 3 (+3), starts = 4 (+4), messages = 0 (+0)|";
    EXPECT_EQ(lines(), expected);
    app->decoder.messagesRefused = 5;
    clock.advanceMs(59000);
    clock.setWall(3600000);
    vxLossesWalk();  // not yet a minute
    vx_word_set(app->VXSys.ControlThreadTraceLevel, 0);
    nextMinute();  // hidden lines are not used up
    vx_word_set(app->VXSys.ControlThreadTraceLevel, 1);
    EXPECT_EQ(lines(), expected);
    nextMinute();
    nextMinute();
    EXPECT_EQ(lines(), expected += "records = 3 (+0), starts = 4 (+0), messages = 5 (+5)|");
    app->autoSensor.autoSensor_thread_running = 1;
    vxLossesAtThreadEnd(*app);  // the other thread still sends
    app->autoSensor.autoSensor_thread_running = 0;
    vxLossesAtThreadEnd(*app);
    EXPECT_EQ(lines(), expected += "records = 3 (+0), starts = 4 (+0), messages = 5 (+0)|");
    VXProxyInstance = nullptr;
    VXProxy.numInstance = 0;
}

}  // namespace
}  // namespace vx::test
