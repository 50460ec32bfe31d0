#include "commonlibc/platform/vx_platform_crash.h"

#include <apr_general.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <thread>

#include "commonlibc/vxlb_thread.h"
#include "tests/support/temp_dir.h"

extern "C" {
volatile bool vxCrashTestEnds = false;
// Met by name in the dumps.
[[gnu::noinline]] int vxCrashTestOverflow(volatile char* above) {
    volatile char here[1024];
    if (vxCrashTestEnds) return 0;
    here[0] = static_cast<char>(*above + 1);
    return vxCrashTestOverflow(here) + here[0];
}
__attribute__((noinline, no_sanitize("undefined"))) void vxCrashTestWrite(int* nowhere) {
    *static_cast<volatile int*>(nowhere) = 1;
}
[[gnu::noinline]] void vxCrashTestAbort() {
    std::abort();
}
}

namespace vx::test {
namespace {

volatile char bottom = 0;
int* volatile nowhere = nullptr;

void* overflowInThread(apr_thread_t*, void*) {
    vxCrashTestOverflow(&bottom);
    return nullptr;
}

void fallInThread() {
    apr_initialize();
    apr_pool_t* pool = nullptr;
    apr_pool_create(&pool, nullptr);
    apr_thread_t* thread = nullptr;
    vxlb_thread_create(&thread, nullptr, overflowInThread, nullptr, pool);
    for (;;) ::pause();
}

// Exit code of a child that installs the dump and falls.
int fallIn(const std::string& folder, void (*fall)()) {
    const pid_t child = ::fork();
    if (child == 0) {
        if (!std::freopen("/dev/null", "w", stderr)) ::_exit(98);
        vx_crash_install(folder.c_str(), "Program 1.2");
        const VXCrashStack stack;
        fall();
        ::_exit(99);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

bool holds(const std::string& text, const std::string& pattern) {
    return std::regex_search(text, std::regex(pattern));
}

// The one dump of a folder; empty unless it is exactly one.
std::string dumpIn(const TempDir& dir) {
    std::string text;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        const std::string name = entry.path().filename().string();
        EXPECT_TRUE(text.empty() && holds(name, "^example_[0-9]+\\.txt$")) << name;
        text = dir.read(name);
    }
    return text;
}

TEST(CrashDumps, TellWhereAndEndTheProcess) {
    const struct {
        void (*fall)();
        const char* head;      // pattern of the second line
        const char* function;  // among the frames; empty: none of ours
    } rows[] = {
        {[] { vxCrashTestWrite(nowhere); }, "11, code [0-9]+, address 0x0", "vxCrashTestWrite"},
        {vxCrashTestAbort, "6, code -6, sent by process [0-9]+", "vxCrashTestAbort"},
        {[] { vxCrashTestOverflow(&bottom); }, "11, code [0-9]+, address 0x[0-9A-F]+", "vxCrashTestOverflow"},
        {fallInThread, "11, code [0-9]+, address 0x[0-9A-F]+", "vxCrashTestOverflow"},
        {[] { reinterpret_cast<void (*)()>(nowhere)(); }, "11, code [0-9]+, address 0x0", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.function);
        const TempDir dir;
        EXPECT_EQ(fallIn(dir.path(), row.fall), kCrashExitCode);
        std::string wanted = "^Stack Trace with current ThreadID: [0-9]+\nSignal " + std::string(row.head) +
                             ", at 0x[0-9A-F]+, process [0-9]+, Program 1.2\n";
        const std::string text = dumpIn(dir);
        EXPECT_TRUE(holds(text, wanted)) << text;
        wanted = "\n\\[[0-9]+\\] " + std::string(row.function) +
                 " - 0x[0-9A-F]+, /[^\n]*vx_unit_tests\\+0x[0-9A-F]+\n";
        EXPECT_TRUE(!*row.function || holds(text, wanted)) << text;
    }
}

TEST(CrashDumps, OfThreadsThatFallTogetherOneIsWhole) {
    const TempDir dir;
    const auto fallTogether = [] {
        for (int i = 0; i < 8; ++i) std::thread(vxCrashTestAbort).detach();
        for (;;) ::pause();
    };
    EXPECT_EQ(fallIn(dir / "no/such/folder", vxCrashTestAbort), kCrashExitCode) << "no file is needed";
    EXPECT_EQ(fallIn(dir.path(), fallTogether), kCrashExitCode);
    const std::string text = dumpIn(dir);
    EXPECT_EQ(text.rfind("Stack Trace"), 0u);
    EXPECT_NE(text.find("vxCrashTestAbort"), std::string::npos);
}

}  // namespace
}  // namespace vx::test
