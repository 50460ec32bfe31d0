#include <apr_general.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commonlibc/VXLogRetention.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/agent_thread.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/platform/vx_platform_crash.h"
#include "commonlibc/vxlb_utiles.h"
#include "dotnetagent/agent/vx_service_system.h"

namespace vx {

namespace {

constexpr std::size_t kPathSize = 4096;
constexpr rlim_t kWantedDescriptors = 8192;  // agents' and collectors' sockets, unknown ones, files

void (*controlHandler)(int control) = nullptr;

void stopControl() {
    controlHandler(kServiceControlStop);
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWantedDescriptors) return;
    limit.rlim_cur = std::min(limit.rlim_max, kWantedDescriptors);
    setrlimit(RLIMIT_NOFILE, &limit);
}

// 0, or why nothing can be written below the logs folder.
int makeWritable(const char* home, const char* logs) {
    if (makeDir(logs) == 0) return access(logs, W_OK | X_OK) == 0 ? 0 : errno;
    for (const char* folder : {home, logs})
        if (mkdir(folder, 0777) != 0 && errno != EEXIST) return errno;
    return ENOTDIR;
}

// The fall of any thread is written below the logs folder; old dumps make room first.
void installCrashDump() {
    char home[kPathSize];
    char logs[kPathSize];
    vxFindHome(home, sizeof(home));
    vx_path_join(logs, sizeof(logs), home, "logs");
    if (const int error = makeWritable(home, logs))
        std::fprintf(stderr, "VXProxyService: %s cannot be written (%s): no trace, no crash dumps\n", logs,
                     std::strerror(error));
    vxDropOldCrashDumps(logs, kKeptCrashDumps);
    if (!vx_crash_install(logs, "VXProxyService " VX_VERSION))
        vx_service_debug("VXProxyService: ServiceMain: crash dump not installed");
    static const VXCrashStack mainThreadsStack;
}

struct Worker {
    void (*body)(void* argument);
    void* argument;
};

void* runBody(void* given) {
    const VXCrashStack crashStack;
    const Worker& worker = *static_cast<Worker*>(given);
    worker.body(worker.argument);
    return nullptr;
}

const char* nameOf(VXServiceState state) {
    switch (state) {
        case VXServiceState::kStopped:
            return "stopped";
        case VXServiceState::kStartPending:
            return "start pending";
        case VXServiceState::kStopPending:
            return "stop pending";
        case VXServiceState::kRunning:
            return "running";
    }
    return "unknown";
}

}  // namespace

bool vx_service_register(void (*handler)(int control)) {
    controlHandler = handler;
    raiseDescriptorLimit();
    std::signal(SIGXFSZ, SIG_IGN);  // a file at its limit is a failed write, not the end
    apr_initialize();
    installCrashDump();
    return vxStartSignalThread(stopControl);
}

void vx_service_report(const VXServiceStatus& status) {
    char line[128];
    std::snprintf(line, sizeof(line), "VXProxyService: ServiceStatus: %s, exit code %d, check point %d",
                  nameOf(status.state), status.exitCode, status.checkPoint);
    vx_service_debug(line);
}

bool vx_service_run_worker(void (*body)(void* argument), void* argument) {
    Worker worker{body, argument};
    pthread_t thread;
    return pthread_create(&thread, nullptr, runBody, &worker) == 0 && pthread_join(thread, nullptr) == 0;
}

void vx_service_debug(const char* line) {
    if (std::getenv("VX_SERVICE_DEBUG")) std::fprintf(stderr, "%s\n", line);
}

}  // namespace vx
