#include "tools/collector/collector_options.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tools/collector/store_clickhouse.h"

namespace vx::collector {

namespace {

constexpr int kMostPort = 65535;

constexpr const char* kHelp =
    "Usage: vxcollector [--listen PORT] [--ws PORT] [--wss PORT] [options]\n"
    "       vxcollector export --db FILE|--clickhouse URL --format otlp-json|csv [--help tells more]\n"
    "       vxcollector --check-rules FILE [--url URL] [--method M] [--query Q] [--header H]\n"
    "\n"
    "A collector for one machine: accepts the control, data and auto-sensor connections of VXProxyService,\n"
    "starts and stops instrumentation, keeps the streams and prints what they tell.\n"
    "\n"
    "  --listen PORT       TCP port (0: any free port)\n"
    "  --ws PORT           port for WebSocket connections (WS)\n"
    "  --wss PORT          port for WebSocket connections over TLS (WSS); needs --cert and --key\n"
    "  --cert FILE, --key FILE  certificate (with its chain) and private key, in PEM form\n"
    "  --offer LIST        protocols in replies to instances, as in WSS:443,WS:80,TCP:8080; an instance "
    "takes\n"
    "                      the first that it has. Default: the ports above when there are several, else "
    "what\n"
    "                      the instance says of itself\n"
    "  --host ADDRESS      address to listen on (default 0.0.0.0)\n"
    "  --keywords FILE     keywords of the start line, one key=value a line, in place of the default ones\n"
    "  --files DIR         hands out the files of DIR (below)\n"
    "  --out DIR           writes every stream to a file in DIR\n"
    "  --db FILE           stores what arrives in a database file (docs/collector.md tells what is in it)\n"
    "  --clickhouse URL    stores it in a ClickHouse server: http://[user:password@]host[:port][/database]\n"
    "  --collector-id N    number of this collector among those that write there (default 0, at most 8191)\n"
    "  --keep-days N       gives up what is older (default 7; 0: never)\n"
    "  --keep-mb N         gives up the oldest when the database is larger (default 4096; 0: never)\n"
    "  --retry-policy P    attempts%%seconds%%missed heartbeats%%heartbeat period (default 3%%5%%10%%60)\n"
    "  --port-file FILE    writes the ports in use to FILE, one a line: TCP, WS, WSS\n"
    "  --http PORT         serves a web page of what arrives (0: any free port, printed at start)\n"
    "  --http-host ADDRESS address of the page (default 127.0.0.1); another than a loopback one needs a "
    "token\n"
    "  --http-token-file FILE  its first line is the token (16 characters or more) that the page asks for\n"
    "  --http-name NAME    a further name of this machine by which browsers may ask for the page\n"
    "  --interval SECONDS  pause between tables on a terminal (default 5)\n"
    "  --heartbeat SECONDS pause between heartbeats (default 10)\n"
    "  --seconds N         ends after N seconds\n"
    "  --no-start          waits for the command 'start' in place of starting by itself\n"
    "  --help, --version\n"
    "  --check-rules FILE  reads a file of rules (DIR/BTRuleConfig) as the service does, tells what each\n"
    "                      line means or why it has no effect, and which BT a request gets\n"
    "\n"
    "Files: each file of DIR is named by its keyword (DIR/VXEntryPointsFile, DIR/BTRuleConfig,\n"
    "DIR/vxMethodMonFile, ...), each instrumentation profile is DIR/instrProfile/NAME. The start line names\n"
    "them with size and date, instances ask for those that are new to them, and a changed, new or removed "
    "file\n"
    "is told to every started instance within a second. A file has at most 64 MB. Files whose names begin "
    "with\n"
    "a dot are passed over; write a new version beside the old one and rename it.\n"
    "\n"
    "Commands on standard input (N: only the instance of that number, as printed when it connects):\n"
    "  start, stop                       starts and stops instrumentation on all instances\n"
    "  modify KEY=VALUE[;KEY=VALUE...]   changes keywords of all instances\n"
    "  thread-dump [N], discover [N]     asks for a thread dump, or for the loaded classes\n"
    "  metadata [N]                      asks for names and ids again\n"
    "  reroute HOST PORT [N]             hands instances to another collector\n"
    "  ruckus ID SECONDS [KEY=VALUE;...] a message for datagram clients to have for so long; 0 ends it\n"
    "  transactions, transaction NUMBER  prints the latest transactions with headers or exceptions, or one\n"
    "  table, files, quit                prints the table, or the files handed out; ends\n";

struct NumberRow {
    const char* name;
    double Options::*member;
};
constexpr auto kNumbers = std::to_array<NumberRow>({
    {"--interval", &Options::tableSeconds},
    {"--heartbeat", &Options::heartbeatSeconds},
    {"--seconds", &Options::runSeconds},
    {"--keep-days", &Options::keepDays},
    {"--keep-mb", &Options::keepMb},
});
struct TextRow {
    const char* name;
    std::string Options::*member;
};
constexpr auto kTexts = std::to_array<TextRow>({
    {"--host", &Options::listenHost},
    {"--keywords", &Options::keywordsFile},
    {"--files", &Options::filesDir},
    {"--out", &Options::outDir},
    {"--db", &Options::databaseFile},
    {"--clickhouse", &Options::clickHouse},
    {"--retry-policy", &Options::retryPolicy},
    {"--port-file", &Options::portFile},
    {"--cert", &Options::certificateFile},
    {"--key", &Options::keyFile},
    {"--offer", &Options::offer},
    {"--http-host", &Options::httpHost},
    {"--http-token-file", &Options::httpTokenFile},
    {"--http-name", &Options::httpName},
});

struct WholeRow {
    const char* name;
    int Options::*member;
    int most = kMostPort;
};
constexpr auto kWholes = std::to_array<WholeRow>({
    {"--listen", &Options::listenPort},
    {"--ws", &Options::wsPort},
    {"--wss", &Options::wssPort},
    {"--http", &Options::httpPort},
    {"--collector-id", &Options::collectorId, kMostCollectors - 1},
});

OptionsResult bad(const char* text, const char* value) {
    std::fprintf(stderr, "vxcollector: %s '%s' (--help tells the options)\n", text, value);
    return OptionsResult::kExitBad;
}

bool readNumber(const char* text, double& out) {
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (end == text || *end != '\0' || !(value >= 0)) return false;
    out = value;
    return true;
}

bool readWhole(const char* text, int most, int& out) {
    double value = 0;
    if (!readNumber(text, value) || value > most || value != static_cast<int>(value)) return false;
    out = static_cast<int>(value);
    return true;
}

// 1 taken, 0 not an option with a value, -1 a bad value.
int takeValue(const char* name, const char* value, Options& out) {
    for (const TextRow& row : kTexts)
        if (!std::strcmp(name, row.name)) {
            out.*row.member = value;
            return 1;
        }
    for (const NumberRow& row : kNumbers)
        if (!std::strcmp(name, row.name)) return readNumber(value, out.*row.member) ? 1 : -1;
    for (const WholeRow& row : kWholes)
        if (!std::strcmp(name, row.name)) return readWhole(value, row.most, out.*row.member) ? 1 : -1;
    return 0;
}

// A comma list of names with ports, as instances understand it.
bool isOffer(std::string_view list) {
    do {
        const std::string_view item = list.substr(0, list.find(','));
        const std::size_t colon = item.find(':');
        const std::string_view name = item.substr(0, colon);
        int port = 0;
        if (colon == std::string_view::npos || (name != "TCP" && name != "WS" && name != "WSS") ||
            !readWhole(std::string(item.substr(colon + 1)).c_str(), kMostPort, port) || port == 0)
            return false;
        list.remove_prefix(std::min(list.size(), item.size() + 1));
    } while (!list.empty());
    return true;
}

OptionsResult checkWays(const Options& options) {
    if (options.listenPort < 0 && options.wsPort < 0 && options.wssPort < 0)
        return bad("an option is missing:", "--listen PORT");
    if (options.wssPort >= 0 && (options.certificateFile.empty() || options.keyFile.empty()))
        return bad("--wss needs", "--cert FILE --key FILE");
    if (!options.databaseFile.empty() && !options.clickHouse.empty())
        return bad("options exclude each other:", "--db, --clickhouse");  // a URL may hold a password
    if (!options.offer.empty() && !isOffer(options.offer)) return bad("bad value", options.offer.c_str());
    return OptionsResult::kRun;
}

}  // namespace

OptionsResult readOptions(int argc, char** argv, Options& out) {
    for (int i = 1; i < argc; ++i) {
        const char* name = argv[i];
        if (!std::strcmp(name, "--help")) {
            std::printf(kHelp);  // NOLINT: the text doubles its percent signs
            return OptionsResult::kExitOk;
        }
        if (!std::strcmp(name, "--version")) {
            std::printf("vxcollector %s\n", VX_VERSION);
            return OptionsResult::kExitOk;
        }
        if (!std::strcmp(name, "--no-start")) {
            out.autoStart = false;
            continue;
        }
        if (i + 1 >= argc) return bad("unknown option, or one without its value,", name);
        const int taken = takeValue(name, argv[i + 1], out);
        if (taken == 0) return bad("unknown option", name);
        if (taken < 0) return bad("bad value", argv[i + 1]);
        ++i;
    }
    return checkWays(out);
}

}  // namespace vx::collector
