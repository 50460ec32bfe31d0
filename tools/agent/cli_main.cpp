// vxagent: reports the requests of an access log, or traffic of its own making, to the proxy.
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "commonlibc/vxlb_clock.h"
#include "tools/agent/cli_modes.h"
#include "tools/agent/vxagent_lines.h"

namespace vx::agent {
namespace {

constexpr std::int64_t kWaitStepUs = 10000, kRoomStepUs = 2000;
volatile std::sig_atomic_t signalled = 0;

struct Mode {
    const char* name;
    const char* help;
    int (*run)(int argc, char** argv);
};
constexpr auto kModes = std::to_array<Mode>({
    {"access-log", "each line of an nginx or Apache access log becomes a transaction", runAccessLog},
    {"load", "generates traffic and reports what it sent", runLoad},
});

int usage(std::FILE* to, int code) {
    std::fputs("usage: vxagent MODE [options]\n", to);
    for (const Mode& mode : kModes) std::fprintf(to, "  %-12s %s\n", mode.name, mode.help);
    std::fputs("vxagent MODE --help shows the options of a mode.\n", to);
    return code;
}

int run(int argc, char** argv) {
    if (argc < 2) return usage(stderr, kExitUsage);
    if (std::strcmp(argv[1], "--help") == 0) return usage(stdout, kExitOk);
    if (std::strcmp(argv[1], "--version") == 0) {
        std::puts("vxagent " VX_VERSION);
        return kExitOk;
    }
    for (const Mode& mode : kModes)
        if (std::strcmp(argv[1], mode.name) == 0) return mode.run(argc - 2, argv + 2);
    std::fprintf(stderr, "vxagent: unknown mode '%s'\n", argv[1]);
    return usage(stderr, kExitUsage);
}

std::string hostName() {
    char name[256] = "";
    return gethostname(name, sizeof(name) - 1) == 0 && name[0] ? name : "localhost";
}

}  // namespace

void catchSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { signalled = 1; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool stopRequested() {
    return signalled != 0;
}

std::vector<Option> commonOptions(CommonOptions& common) {
    common.server = hostName();
    return {
        {"--proxy", "HOST:PORT", "the proxy to report to", OptionKind::kAddress, &common.proxy, true},
        {"--app", "NAME", "application (default)", OptionKind::kText, &common.application},
        {"--tier", "NAME", "tier (web)", OptionKind::kText, &common.tier},
        {"--server", "NAME", "server (the host's name)", OptionKind::kText, &common.server},
        {"--agent", "NAME", "agent (vxagent)", OptionKind::kText, &common.agent},
        {"--type", "NAME", "agent type: Java, Python, php, Dotnet or go (Java)", OptionKind::kText,
         &common.type},
        {"--udp", nullptr, "reports by datagrams, each process as a function of its own", OptionKind::kFlag,
         &common.udp},
        {"--ws", nullptr, "connects over WebSocket (WS)", OptionKind::kFlag, &common.ws},
        {"--wss", nullptr, "connects over WebSocket and TLS (WSS)", OptionKind::kFlag, &common.wss},
        {"--wait", "SECONDS", "how long to wait for the proxy to ask for records (30); 0: for ever",
         OptionKind::kNumber, &common.waitSeconds, false, 0, 1e9},
    };
}

bool readOptions(const char* mode, const std::vector<Option>& options, int argc, char** argv, int& code) {
    if (argc == 1 && std::strcmp(argv[0], "--help") == 0) {
        std::printf("usage: vxagent %s [options]\n", mode);
        printOptions(options);
        code = kExitOk;
        return false;
    }
    std::string error;
    if (parseOptions(options, argc, argv, error)) return true;
    std::fprintf(stderr, "vxagent %s: %s\n", mode, error.c_str());
    code = kExitUsage;
    return false;
}

bool checkCommon(const char* mode, const CommonOptions& common) {
    if (common.udp + common.ws + common.wss > 1) {
        std::fprintf(stderr, "vxagent %s: only one of --udp, --ws and --wss\n", mode);
        return false;
    }
    for (const std::string* name :
         {&common.application, &common.tier, &common.server, &common.agent, &common.type}) {
        if (isFieldText(*name)) continue;
        std::fprintf(stderr,
                     "vxagent %s: '%s' is no name: it takes 1 to 1023 bytes without \";\" and newlines\n",
                     mode, name->c_str());
        return false;
    }
    return true;
}

vxagent* openAgent(const CommonOptions& common) {
    vxagent_options options;
    vxagent_options_init(&options);
    options.host = common.proxy.host.c_str();
    options.port = common.proxy.port;
    options.application = common.application.c_str();
    options.tier = common.tier.c_str();
    options.server = common.server.c_str();
    options.agent = common.agent.c_str();
    options.agent_type = common.type.c_str();
    const std::string& function = common.function.empty() ? common.agent : common.function;
    options.transport = common.wss ? VXAGENT_WSS : common.ws ? VXAGENT_WS : VXAGENT_TCP;
    if (common.udp) options.function = function.c_str();
    vxagent* agent = vxagent_open(&options);
    if (!agent) std::fputs("vxagent: no memory or no thread for the agent\n", stderr);
    return agent;
}

bool waitUntilSending(const vxagent* agent, double seconds) {
    const std::int64_t before = vxlb_steady_us();
    vxagent_statistics now;
    for (;;) {
        vxagent_get_statistics(agent, &now);
        if (now.state == VXAGENT_SENDING) return true;
        if (stopRequested()) return false;
        if (seconds > 0 && static_cast<double>(vxlb_steady_us() - before) > seconds * 1e6) return false;
        vxlb_sleep_us(kWaitStepUs);
    }
}

void waitForRoom(const vxagent* agent) {
    vxagent_statistics now;
    for (;;) {
        vxagent_get_statistics(agent, &now);
        if (now.queued_bytes * 2 < now.queue_bytes || !vxagent_instrumenting(agent) || stopRequested())
            return;
        vxlb_sleep_us(kRoomStepUs);
    }
}

}  // namespace vx::agent

int main(int argc, char** argv) {
    return vx::agent::run(argc, argv);
}
