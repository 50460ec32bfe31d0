#include "commonlibc/vxlb_trace.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>

#include "commonlibc/vxlb_trace_failure.h"
#include "tests/support/app_fixture.h"
#include "tests/support/fake_clock.h"
#include "tests/support/trace_file.h"

namespace vx {
namespace {

using test::TraceFile;

const std::string kHeader =
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line "
    "number|Function|Severity|Message\n";
constexpr std::int64_t kNowMs = 1739556984042;  // 2025-02-14 18:16:24.042 UTC

// A file's name at kNowMs, from what stands ahead of the time.
std::string nameOf(const std::string& ahead) {
    return ahead + "_20250214181624_" + std::to_string(getpid()) + ".log_0";
}

class Trace : public test::AppFixture {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        AppFixture::SetUp();
    }

    test::FakeClock clock{kNowMs};
};

TEST_F(Trace, NamesItsFileByProcessAndPoolAndWritesEveryFieldOfALine) {
    TraceFile trace(*app);
    VXTraceInit("ProxyName", "DotNetAgent");
    EXPECT_TRUE(trace.names().empty()) << "made with the first line";
    vxTraceWrite({"/any/folder/Unit.cpp", 12, "doThings"}, TraceModule::kBtMon, TraceSeverity::kWarning,
                 "%s=%d", "n", 5);
    app->VXBCISetting.testRunIndex = 4711;
    vxTraceWrite({"Unit.cpp", 13, "f"}, TraceModule::kAgentLog, TraceSeverity::kNone, "end");

    const std::string tid = std::to_string(gettid());
    EXPECT_EQ(trace.text(), kHeader + "\n02/14/25 18:16:24:042|******|(null)|" + tid +
                                "|BT_MON|Unit.cpp|12|doThings|Warning|n=5" +
                                "\n02/14/25 18:16:24:042|TR4711|(null)|" + tid +
                                "|AGENT-LOG|Unit.cpp|13|f||end");
    EXPECT_EQ(trace.names(), std::vector{nameOf("vx_trace_ProxyName_DotNetAgent")});
}

TEST_F(Trace, ObeysTheLevelOfEachModule) {
    TraceFile trace(*app, 0);
    vx_word_set(app->VXSys.enableFPTrace, 2);
    int evaluated = 0;
    VX_TRACE(3, kFlowpath, kInfo, "too deep %d", ++evaluated);
    VX_TRACE(1, kBtMon, kInfo, "other module %d", ++evaluated);
    VX_TRACE(2, kFlowpath, kInfo, "in level");
    vxSetCurrent(nullptr);
    VX_TRACE(1, kFlowpath, kInfo, "no context %d", ++evaluated);
    VX_TRACE(0, kFlowpath, kInfo, "always");
    VXTraceClose();
    VX_TRACE(0, kFlowpath, kInfo, "tracing is off %d", ++evaluated);
    vxSetCurrent(app);

    EXPECT_EQ(evaluated, 0);
    const std::string text = trace.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
    EXPECT_TRUE(text.ends_with("|always"));
}

TEST_F(Trace, CutsALineAt10239Bytes) {
    TraceFile trace(*app);
    VX_TRACE(1, kControlThread, kInfo, "%s", std::string(20000, 'x').c_str());
    EXPECT_EQ(trace.text().size(), kHeader.size() + 10239);
    vxTraceWrite({"Unit.cpp", 1, std::string(20000, 'f').c_str()}, TraceModule::kMemory, TraceSeverity::kInfo,
                 "no room for a message");
    EXPECT_EQ(trace.text().size(), kHeader.size() + 10239);
}

TEST_F(Trace, AlternatesBetweenTwoFilesThatBeginWithTheHeader) {
    TraceFile trace(*app);
    vx_word_set(app->VXSys.BCITraceMaxSize, 1000);
    for (int i = 0; i < 30; ++i) {
        VX_TRACE(1, kControlThread, kInfo, "%200s line %d", "", i);
        EXPECT_TRUE(trace.says(" line " + std::to_string(i)));
    }
    ASSERT_EQ(trace.names().size(), 2u);
    for (const std::string& name : trace.names()) {
        const std::string content = trace.home().read("logs/" + name);
        EXPECT_EQ(content.substr(0, kHeader.size()), kHeader) << name;
        EXPECT_EQ(content.find('#', 1), std::string::npos) << "a second header in " << name;
        EXPECT_LT(content.size(), kHeader.size() + 1000 + 400) << name;
    }
}

TEST_F(Trace, DropsLinesWhileTheHomeCannotBeWrittenTellsOnceAndGoesOnLater) {
    static int told;
    told = 0;
    vxTraceFailure = [](const char*, int) { ++told; };
    TraceFile trace(*app);
    const std::string blocked = trace.home().write("file", "no folder");
    setSharedText(app->retired, app->VXSys.vxHomePath, blocked.c_str());
    VXTraceInit("lost", nullptr);
    for (int i = 0; i < 2; ++i) VX_TRACE(1, kControlThread, kInfo, "dropped");
    EXPECT_EQ(told, 1);
    std::filesystem::remove(blocked);
    std::filesystem::create_directories(blocked + "/logs");
    for (int i = 0; i < 2; ++i) VX_TRACE(1, kControlThread, kInfo, "kept");
    vxTraceFailure = nullptr;
    const std::string text = trace.home().read("file/logs/" + nameOf("vx_trace_lost"));
    EXPECT_EQ(text.find("dropped"), std::string::npos) << text;
    EXPECT_TRUE(text.starts_with(kHeader + "\n#2 lines could not be written\n") && text.ends_with("|kept"))
        << text;
    EXPECT_EQ(text.find("could not", kHeader.size() + 20), std::string::npos) << "told once\n" << text;
}

TEST_F(Trace, ASecondInitIsSafeBesideThreadsThatTrace) {
    TraceFile trace(*app);
    vx_word_set(app->VXSys.BCITraceMaxSize, 4000);
    std::atomic<bool> stop{false};
    const auto work = [&] {
        vxSetCurrent(app);
        while (!stop) VX_TRACE(1, kControlThread, kInfo, "from a thread");
    };
    std::thread one(work), two(work);
    for (int i = 0; i < 200; ++i) VXTraceInit("again", i % 2 ? "pool" : nullptr);
    stop = true;
    one.join();
    two.join();
    VX_TRACE(1, kControlThread, kInfo, "still there");

    EXPECT_TRUE(trace.says("|Info|still there"));
    std::istringstream lines(trace.text());
    for (std::string line; std::getline(lines, line);) {
        line = line.substr(0, line.find('#'));  // the next file's header, behind a line without end
        if (line.empty()) continue;
        EXPECT_TRUE(line.starts_with("02/14/25 18:16:24:042|******|(null)|")) << line;
        EXPECT_TRUE(line.ends_with("|Info|from a thread") || line.ends_with("|Info|still there")) << line;
        EXPECT_EQ(std::count(line.begin(), line.end(), '|'), 9) << line;
    }
}

}  // namespace
}  // namespace vx
