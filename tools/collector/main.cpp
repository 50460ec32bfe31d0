// vxcollector: a collector to run the proxy against, on one machine.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

#include "commonlibc/vxbt/vxbt_rule_check.h"
#include "tools/collector/collector_options.h"
#include "tools/collector/collector_page.h"
#include "tools/collector/collector_server.h"
#include "tools/collector/export_command.h"

namespace {

volatile int stopRequested = 0;

void requestStop(int) {
    stopRequested = 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--check-rules") == 0)
        return vx::vxCheckRulesCommand("vxcollector", argc - 2, argv + 2);
    if (argc > 1 && std::strcmp(argv[1], "export") == 0)
        return vx::collector::exportCommand(argc - 2, argv + 2);
    vx::collector::Options options;
    switch (vx::collector::readOptions(argc, argv, options)) {
        case vx::collector::OptionsResult::kExitOk:
            return 0;
        case vx::collector::OptionsResult::kExitBad:
            return 2;
        case vx::collector::OptionsResult::kRun:
            break;
    }
    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is a fault to tell, not the end

    vx::collector::CollectorServer server(options);
    std::string error;
    if (!server.open(error)) {
        std::fprintf(stderr, "vxcollector: %s\n", error.c_str());
        return 1;
    }
    std::unique_ptr<vx::collector::CollectorPage> page;
    if (options.httpPort >= 0) {
        page = std::make_unique<vx::collector::CollectorPage>(options, server.board(), server.store());
        if (!page->start(error)) {
            std::fprintf(stderr, "vxcollector: %s\n", error.c_str());
            return 1;
        }
        std::printf("page at %s\n", page->address().c_str());
    }
    std::printf("vxcollector %s listening on %s\n", VX_VERSION, server.ways().c_str());
    std::fflush(stdout);
    server.run(stopRequested);
    return 0;
}
