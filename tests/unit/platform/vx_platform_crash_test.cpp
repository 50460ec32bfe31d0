#include "commonlibc/platform/vx_platform_crash.h"

#include <apr_general.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>

#include "commonlibc/vxlb_thread.h"
#include "tests/support/by_name.h"
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
[[gnu::noinline]] void vxCrashTestWrite(int* nowhere) {
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

std::vector<std::string> dumpsIn(const TempDir& dir) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
        names.push_back(entry.path().filename().string());
    return names;
}

struct Fall {
    const char* name;
    void (*fall)();
    const char* head;      // pattern of the second line
    const char* function;  // among the frames; null: none of ours
};
class CrashDump : public testing::TestWithParam<Fall> {};

TEST_P(CrashDump, TellsWhereAndEndsTheProcess) {
    const TempDir dir;
    ASSERT_EQ(fallIn(dir.path(), GetParam().fall), kCrashExitCode);
    ASSERT_EQ(dumpsIn(dir).size(), 1u);
    const std::string name = dumpsIn(dir)[0];
    EXPECT_TRUE(std::regex_match(name, std::regex("example_[0-9]+\\.txt"))) << name;
    const std::string text = dir.read(name);
    EXPECT_TRUE(std::regex_search(
        text, std::regex("^Stack Trace with current ThreadID: [0-9]+\nSignal " +
                         std::string(GetParam().head) + ", at 0x[0-9A-F]+, process [0-9]+, Program 1.2\n")))
        << text;
    if (!GetParam().function) return;
    EXPECT_TRUE(std::regex_search(text, std::regex("\n\\[[0-9]+\\] " + std::string(GetParam().function) +
                                                   " - 0x[0-9A-F]+, /.*vx_unit_tests\\+0x[0-9A-F]+\n")))
        << text;
}

INSTANTIATE_TEST_SUITE_P(Falls, CrashDump,
                         testing::ValuesIn<Fall>({
                             {"a_write_to_nowhere", [] { vxCrashTestWrite(nowhere); },
                              "11, code [0-9]+, address 0x0", "vxCrashTestWrite"},
                             {"an_abort", vxCrashTestAbort, "6, code -6, sent by process [0-9]+",
                              "vxCrashTestAbort"},
                             {"a_stack_that_overflows", [] { vxCrashTestOverflow(&bottom); },
                              "11, code [0-9]+, address 0x[0-9A-F]+", "vxCrashTestOverflow"},
                             {"a_thread_whose_stack_overflows", fallInThread,
                              "11, code [0-9]+, address 0x[0-9A-F]+", "vxCrashTestOverflow"},
                             {"a_jump_to_nowhere", [] { reinterpret_cast<void (*)()>(nowhere)(); },
                              "11, code [0-9]+, address 0x0", nullptr},
                             {"a_signal_from_outside", [] { ::kill(::getpid(), SIGILL); },
                              "4, code 0, sent by process [0-9]+", nullptr},
                         }),
                         byName);

TEST(CrashDumps, HaveNamesOfTheirOwnAndAreNotNeededForTheEnd) {
    const TempDir dir;
    for (int i = 0; i < 3; ++i) fallIn(dir.path(), vxCrashTestAbort);
    EXPECT_EQ(dumpsIn(dir).size(), 3u);
    EXPECT_EQ(fallIn(dir / "no/such/folder", vxCrashTestAbort), kCrashExitCode);
    EXPECT_EQ(dumpsIn(dir).size(), 3u);
}

TEST(CrashDumps, OfThreadsThatFallTogetherOneIsWhole) {
    const TempDir dir;
    const auto fallTogether = [] {
        pthread_t thread;
        for (int i = 0; i < 8; ++i)
            pthread_create(
                &thread, nullptr,
                [](void*) -> void* {
                    vxCrashTestAbort();
                    return nullptr;
                },
                nullptr);
        for (;;) ::pause();
    };
    EXPECT_EQ(fallIn(dir.path(), fallTogether), kCrashExitCode);
    ASSERT_EQ(dumpsIn(dir).size(), 1u);
    const std::string text = dir.read(dumpsIn(dir)[0]);
    EXPECT_EQ(text.rfind("Stack Trace"), 0u);
    EXPECT_NE(text.find("vxCrashTestAbort"), std::string::npos);
}

}  // namespace
}  // namespace vx::test
