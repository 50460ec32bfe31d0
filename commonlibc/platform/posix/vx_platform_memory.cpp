#include "commonlibc/platform/vx_platform_memory.h"

#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "commonlibc/platform/vx_platform.h"

extern char** environ;

namespace vx {

const char* const kDumpTool = "gcore";

namespace {

constexpr int kBytesPerMbShift = 20;
constexpr const char* kOwnGroups = "/proc/self/cgroup";
constexpr const char* kGroupRoot = "/sys/fs/cgroup";
constexpr timespec kLookEvery{0, 100'000'000};
constexpr int kLooksPerSecond = 10;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// The number that a file holds; 0 without one, as where a group's limit says "max".
std::int64_t numberIn(const std::string& path) {
    const File file(std::fopen(path.c_str(), "re"));
    std::int64_t number = 0;
    return file && std::fscanf(file.get(), "%" SCNd64, &number) == 1 ? number : 0;
}

// A limit holds for all groups below: the least one on the way up to `folder` itself; 0 without any.
std::int64_t leastLimit(const std::string& folder, std::string group, const char* name) {
    std::int64_t least = 0;
    for (;;) {
        const std::int64_t limit = numberIn(folder + group + "/" + name);
        if (limit > 0) least = least ? std::min(least, limit) : limit;
        const std::size_t slash = group.rfind('/');
        if (slash == std::string::npos) return least;
        group.resize(slash);
    }
}

// Of a line "number:controllers:group": memory is a controller of the old kind, or of the one tree.
std::int64_t limitOfLine(std::string_view line, const std::string& root) {
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', first == std::string_view::npos ? first : first + 1);
    if (second == std::string_view::npos) return 0;
    const std::string_view controllers = line.substr(first + 1, second - first - 1);
    const std::string group(line.substr(second + 1));
    if (controllers.empty()) return leastLimit(root, group, "memory.max");
    return controllers == "memory" ? leastLimit(root + "/memory", group, "memory.limit_in_bytes") : 0;
}

// The tool with signals as a program expects them, in a process group of its own, without our descriptors.
pid_t startTool(const char* const* arguments) {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    pid_t tool = -1;
    if (posix_spawnp(&tool, arguments[0], &actions, &attributes, const_cast<char* const*>(arguments),
                     environ) != 0)
        tool = -1;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return tool;
}

int awaitTool(pid_t tool) {
    int status = 0;
    for (int look = 0; look < kDumpSeconds * kLooksPerSecond; ++look) {
        const pid_t ended = ::waitpid(tool, &status, WNOHANG);
        if (ended == tool) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (ended < 0 && errno != EINTR) return -1;
        ::nanosleep(&kLookEvery, nullptr);
    }
    ::kill(-tool, SIGKILL);
    ::waitpid(tool, &status, 0);
    return -1;
}

}  // namespace

std::int64_t vx_platform_resident_mb() {
    const File file(std::fopen("/proc/self/statm", "re"));
    std::int64_t size = 0;
    std::int64_t resident = 0;
    if (!file || std::fscanf(file.get(), "%" SCNd64 " %" SCNd64, &size, &resident) != 2) return -1;
    return resident * ::sysconf(_SC_PAGESIZE) >> kBytesPerMbShift;
}

std::int64_t vx_platform_memory_limit_mb() {
    return vx_cgroup_limit_mb(kOwnGroups, kGroupRoot);
}

std::int64_t vx_cgroup_limit_mb(const char* list, const char* root) {
    const File file(std::fopen(list, "re"));
    if (!file) return 0;
    std::int64_t least = 0;
    char line[4096];
    while (std::fgets(line, sizeof(line), file.get())) {
        line[std::strcspn(line, "\n")] = '\0';
        const std::int64_t limit = limitOfLine(line, root);
        if (limit > 0) least = least ? std::min(least, limit) : limit;
    }
    return least == 0 ? 0 : std::max(least >> kBytesPerMbShift, std::int64_t{1});
}

int vx_platform_dump_process(const char* folder, const char* prefix, char* command, std::size_t size) {
    char target[4096];
    char process[24];
    vx_path_join(target, sizeof(target), folder, prefix);
    std::snprintf(process, sizeof(process), "%d", static_cast<int>(::getpid()));
    const char* const arguments[] = {kDumpTool, "-o", target, process, nullptr};
    std::snprintf(command, size, "%s -o %s %s", kDumpTool, target, process);
    const pid_t tool = startTool(arguments);
    if (tool < 0) return -1;
#ifdef PR_SET_PTRACER
    ::prctl(PR_SET_PTRACER, tool, 0, 0, 0);  // where only a parent may trace: this child, and its children
#endif
    return awaitTool(tool);
}

}  // namespace vx
