// One of the built programs, running: for end-to-end tests.
//
// Its output (both streams) goes to a file that the test can wait on; the destructor kills what still runs.
// It leads a process group: signals reach the processes that it has made as well.
// Waits poll every 5 ms and fail the test when they meet their limit: that of a machine which is many times
// too slow, since what is waited for comes at once on any other.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace vx::test {

inline constexpr double kPatience = 60;  // seconds

class Program {
public:
    struct Setup {
        std::vector<std::string> arguments;    // the program's path first
        std::vector<std::string> environment;  // "NAME=value", beside the test's own
        std::string outputFile;
    };
    explicit Program(const Setup& setup);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void signal(int number) const;
    // Writes a line to the program's standard input.
    void say(const std::string& line) const;
    // Exit code, 128 + signal, or -1 when it still runs after the limit.
    int wait(double seconds = kPatience);
    bool running();
    std::string output() const;
    // True once the output holds `text` at least `count` times.
    bool outputHolds(const std::string& text, int count = 1, double seconds = kPatience) const;
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int stdin_ = -1;
    int status_ = -1;
    std::string outputFile_;
};

// Path of a built program.
std::string programPath(const std::string& name);
// A TCP port on loopback that is free, and that no other test is given while this process lives.
int freePort();
// Waits until condition() answers true; false when the limit passes.
bool eventually(const auto& condition, double seconds = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    // A machine that stood still meanwhile has not looked often.
    for (int round = 0; round < 20 || std::chrono::steady_clock::now() < deadline; ++round) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}
int occurrences(const std::string& text, const std::string& wanted);
std::string fileText(const std::string& path);
// What a program holds, as the system tells it; -1 when it is gone.
long residentKb(pid_t pid);
int descriptorsOf(pid_t pid);

#ifdef __has_feature
#define VX_HAS_FEATURE(name) __has_feature(name)
#else
#define VX_HAS_FEATURE(name) 0
#endif

// What a sanitizer keeps of freed blocks is no growth of the program.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || VX_HAS_FEATURE(address_sanitizer)
inline constexpr long kSanitizerGrowthKb = 65536;
#else
inline constexpr long kSanitizerGrowthKb = 0;
#endif

}  // namespace vx::test
