// VXProxyService: command line and what the operator is told.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "commonlibc/VXSys.h"
#include "commonlibc/agent_thread.h"
#include "commonlibc/proxyServer/vx_proxy_server.h"
#include "commonlibc/proxyServer/vx_udp_receiver.h"
#include "commonlibc/vx_agent.h"
#include "commonlibc/vxbt/vxbt_rule_check.h"
#include "commonlibc/vxlb_trace_failure.h"
#include "dotnetagent/agent/vx_service.h"
#include "dotnetagent/agent/vx_service_check.h"

namespace {

constexpr int kExitDone = 0, kExitUsage = 2;

constexpr const char* kHelp =
    "Usage: VXProxyService [--version | --help | --check-config]\n"
    "       VXProxyService --check-rules FILE [--url URL] [--method M] [--query Q] [--header H]\n"
    "\n"
    "Stands on an application host between profiler agents and a central collector: takes the agents'\n"
    "records over TCP, WebSocket and UDP, rebuilds transactions from them and sends the results to the\n"
    "collector. Runs in the foreground until it is told to stop.\n"
    "\n"
    "Options:\n"
    "  --version        prints the version and ends\n"
    "  --help           prints this text and ends\n"
    "  --check-config   reads files and environment as a start does, prints each setting with its value and\n"
    "                   where it comes from, and every line that is not understood; changes nothing\n"
    "  --check-rules    reads a file of rules (BTRuleFile.txt, BTRuleConfig) as the service does, tells\n"
    "                   what each line means or why it has no effect, and which BT a request gets; writes\n"
    "                   nothing\n"
    "\n"
    "Environment:\n"
    "  VXHOME             the home is the folder \"proxy\" below this one (else below USERPROFILE, HOME)\n"
    "  VX_SERVICE_DEBUG   when set, each step of start and stop is written to the standard error\n"
    "\n"
    "Files below the home:\n"
    "  config/proxysetting.conf   settings of the service\n"
    "  config/vxsettings.conf     agent settings: collector, protocols, trace level\n"
    "  logs/vx_trace_..._0, _1    trace of a run\n"
    "  logs/example_N.txt         crash dump: stack of the thread that fell\n"
    "  .cache/                    files that the collector handed out\n"
    "\n"
    "Signals:\n"
    "  SIGTERM            stops; what is buffered has 2 seconds to reach the collector\n"
    "  SIGINT, SIGUSR1    closes every connection and stops at once\n"
    "  SIGHUP             is ignored\n"
    "\n"
    "Exit codes:\n"
    "  0   stopped as told; configuration in order\n"
    "  1   the service could not be set up, or has fallen (see the crash dump)\n"
    "  2   unknown option; --check-config or --check-rules found a fault\n"
    "  255 ended by the memory watch, to be started again\n"
    "\n";

void tellListening(const char* host, int port) {
    std::fprintf(stderr, "VXProxyService %s listening on %s:%d, home %s, pid %d\n", VX_VERSION, host, port,
                 vx::getVXHome(), static_cast<int>(getpid()));
}

void tellBindFailed(int port, const char* reason) {
    std::fprintf(stderr,
                 "VXProxyService: cannot serve agents on port %d (%s); trying again every 10 seconds. "
                 "proxyPort in %s/config/proxysetting.conf sets the port.\n",
                 port, reason, vx::getVXHome());
}

void tellUdpFailed(int port, const char* reason) {
    std::fprintf(stderr, "VXProxyService: cannot take datagrams on port %d (%s)\n", port, reason);
}

// With the default level nothing else would tell of it.
void tellSettings(int faults, bool collectorNamed) {
    static bool told = false;
    if (std::exchange(told, true)) return;
    if (faults)
        std::fprintf(stderr, "VXProxyService: %d fault(s) in the settings; --check-config tells them\n",
                     faults);
    if (!collectorNamed)
        std::fputs("VXProxyService: no collector is named; vxcHost of config/vxsettings.conf names one\n",
                   stderr);
}

void tellStopped(vx::VXStopEnd end, const vx::VXLossTotals& lost) {
    const char* const rest = end == vx::VXStopEnd::kSent ? ""
                             : end == vx::VXStopEnd::kLost
                                 ? ", what could not be sent in time is lost"
                                 : ", what could not be sent in time is lost, uncounted";
    std::fprintf(stderr,
                 "VXProxyService stopped as told%s; lost since the start: records = %llu, starts = %llu, "
                 "messages = %llu\n",
                 rest, static_cast<unsigned long long>(lost.records),
                 static_cast<unsigned long long>(lost.starts),
                 static_cast<unsigned long long>(lost.messages));
}

void tellTraceFailure(const char* file, int systemError) {
    std::fprintf(stderr, "VXProxyService: %s cannot be written (%s): trace lines are lost\n", file,
                 std::strerror(systemError));
}

int printVersion() {
    std::printf("VXProxyService %s\n", VX_VERSION);
    return kExitDone;
}

int printHelp() {
    std::printf("%s%s", kHelp, vx::vxSettingsHelp().c_str());
    return kExitDone;
}

int checkConfig() {
    std::string report;
    const int code = vx::vxCheckConfig(&report);
    std::fputs(report.c_str(), stdout);
    return code;
}

struct Option {
    const char* name;
    int (*run)();
};
constexpr Option kOptions[] = {
    {"--version", printVersion}, {"--help", printHelp}, {"--check-config", checkConfig}};

const Option* optionNamed(const char* name) {
    for (const Option& option : kOptions)
        if (std::strcmp(option.name, name) == 0) return &option;
    return nullptr;
}

// The exit code, or -1 when the service is to run.
int takeCommandLine(int count, char** arguments) {
    if (count < 2) return -1;
    if (std::strcmp(arguments[1], "--check-rules") == 0)
        return vx::vxCheckRulesCommand("VXProxyService", count - 2, arguments + 2);
    const Option* option = optionNamed(arguments[1]);
    if (option && count == 2) return option->run();
    std::fprintf(stderr, "VXProxyService: unknown option '%s' (--help tells the options)\n",
                 arguments[option ? 2 : 1]);
    return kExitUsage;
}

}  // namespace

int main(int count, char** arguments) {
    const int code = takeCommandLine(count, arguments);
    if (code >= 0) return code;
    vx::vxListenerReport = {tellListening, tellBindFailed, tellSettings};
    vx::vxTraceFailure = tellTraceFailure;
    vx::vxUdpFailed = tellUdpFailed;
    if (const int failed = vx::vxServiceMain(vx::agent_init)) {
        std::fputs("VXProxyService: the service could not be set up (no thread)\n", stderr);
        return failed;
    }
    vx::vxStopService(tellStopped);
}
