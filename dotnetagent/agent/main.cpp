// VXProxyService: command line and what the operator is told.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "commonlibc/VXSys.h"
#include "commonlibc/agent_thread.h"
#include "commonlibc/proxyServer/vx_proxy_server.h"
#include "commonlibc/vx_agent.h"
#include "dotnetagent/agent/vx_service.h"

namespace {

constexpr int kExitDone = 0, kExitUsage = 2;

constexpr const char* kHelp =
    "Usage: VXProxyService [--version | --help]\n"
    "\n"
    "Stands on an application host between profiler agents and a central collector: takes the agents'\n"
    "records over TCP, rebuilds transactions from them and sends the results to the collector. Runs in the\n"
    "foreground until it is told to stop.\n"
    "\n"
    "Options:\n"
    "  --version   prints the version and ends\n"
    "  --help      prints this text and ends\n"
    "\n"
    "Environment:\n"
    "  VXHOME             the home is the folder \"proxy\" below this one (else below USERPROFILE, HOME)\n"
    "  VX_SERVICE_DEBUG   when set, each step of start and stop is written to the standard error\n"
    "  ZOR_APP_AGENT_*    agent settings, which go before those of the file\n"
    "\n"
    "Files below the home:\n"
    "  config/proxysetting.conf   settings of the service: proxyPort (1111), vxcHost, vxcPort, ...\n"
    "  config/vxsettings.conf     agent settings: collector, protocols, trace level\n"
    "  logs/                      trace files vx_trace_..._0 and _1\n"
    "\n"
    "Signals:\n"
    "  SIGTERM            stops; what is buffered has 2 seconds to reach the collector\n"
    "  SIGINT, SIGUSR1    closes every connection and stops at once\n"
    "\n"
    "Exit codes:\n"
    "  0   stopped as told\n"
    "  1   the service could not be set up\n"
    "  2   unknown option\n";

void tellListening(const char* host, int port) {
    std::fprintf(stderr, "VXProxyService %s listening on %s:%d, home %s, pid %d\n", VX_VERSION, host, port,
                 vx::getVXHome(), static_cast<int>(getpid()));
}

void tellBindFailed(int port, const char* reason) {
    std::fprintf(stderr,
                 "VXProxyService: port %d cannot be taken (%s); trying again every 10 seconds. proxyPort in "
                 "%s/config/proxysetting.conf names another.\n",
                 port, reason, vx::getVXHome());
}

// The exit code, or -1 when the service is to run.
int takeCommandLine(int count, char** arguments) {
    if (count < 2) return -1;
    if (count == 2 && std::strcmp(arguments[1], "--version") == 0) {
        std::printf("VXProxyService %s\n", VX_VERSION);
        return kExitDone;
    }
    if (count == 2 && std::strcmp(arguments[1], "--help") == 0) {
        std::fputs(kHelp, stdout);
        return kExitDone;
    }
    const char* unknown = arguments[1];
    if (count > 2 && (std::strcmp(unknown, "--version") == 0 || std::strcmp(unknown, "--help") == 0))
        unknown = arguments[2];
    std::fprintf(stderr, "VXProxyService: unknown option '%s' (--help tells the options)\n", unknown);
    return kExitUsage;
}

}  // namespace

int main(int count, char** arguments) {
    const int code = takeCommandLine(count, arguments);
    if (code >= 0) return code;
    vx::vxListenerReport = {tellListening, tellBindFailed};
    if (const int failed = vx::vxServiceMain(vx::agent_init)) {
        std::fputs("VXProxyService: the service could not be set up (no thread)\n", stderr);
        return failed;
    }
    vx::vxStopService();
}
