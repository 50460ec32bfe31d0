#include "tools/collector/collector_commands.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "tools/collector/collector_protocol.h"
#include "tools/collector/collector_server.h"

namespace vx::collector {

namespace {

std::string_view takeWord(std::string_view& rest) {
    while (rest.starts_with(' ')) rest.remove_prefix(1);
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(word.size());
    return word;
}

bool readWhole(std::string_view text, int least, int& out) {
    const auto [at, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && at == text.data() + text.size() && out >= least;
}

// The number of an instance, or nothing (0: all), as the last word.
bool takeInstance(std::string_view rest, int& instance) {
    const std::string_view word = takeWord(rest);
    instance = 0;
    return rest.empty() && (word.empty() || readWhole(word, 1, instance));
}

bool orderPlain(const std::string& line, std::string_view rest, CollectorServer& server) {
    int instance = 0;
    if (!takeInstance(rest, instance)) return false;
    server.orderAll(line, false, instance);
    return true;
}

bool modify(std::string_view rest, CollectorServer& server) {
    if (rest.find('=') == std::string_view::npos) return false;
    server.orderAll(modifyLine(rest), true);
    return true;
}

bool reroute(std::string_view rest, CollectorServer& server) {
    const std::string_view host = takeWord(rest), portText = takeWord(rest);
    int port = 0, instance = 0;
    if (host.empty() || host.find(';') != std::string_view::npos || !readWhole(portText, 1, port) ||
        port > 65535 || !takeInstance(rest, instance))
        return false;
    server.orderAll(rerouteLine(host, port), false, instance);
    return true;
}

bool ruckus(std::string_view rest, CollectorServer& server) {
    const std::string_view id = takeWord(rest), secondsText = takeWord(rest);
    int seconds = 0;
    if (id.empty() || id.find_first_of(";=") != std::string_view::npos || !readWhole(secondsText, 0, seconds))
        return false;
    while (rest.starts_with(' ')) rest.remove_prefix(1);
    if (!rest.empty() && rest.find('=') == std::string_view::npos) return false;
    server.orderAll(ruckusLine(id, seconds, rest), false);
    return true;
}

bool printTransaction(std::string_view rest, CollectorServer& server) {
    const std::string_view word = takeWord(rest);
    std::int64_t number = 0;
    const auto [at, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc() || at != word.data() + word.size() || !rest.empty()) return false;
    if (!server.printTransaction(number))
        std::printf("no headers or exceptions of transaction %lld are kept\n",
                    static_cast<long long>(number));
    std::fflush(stdout);
    return true;
}

struct CommandRow {
    std::string_view name;
    const char* arguments;
    bool (*run)(std::string_view rest, CollectorServer& server);  // false: the arguments are wrong
};
constexpr auto kCommands = std::to_array<CommandRow>({
    {"start", "",
     [](std::string_view rest, CollectorServer& s) { return rest.empty() && (s.startAll(), true); }},
    {"stop", "",
     [](std::string_view rest, CollectorServer& s) { return rest.empty() && (s.stopAll(), true); }},
    {"modify", "KEY=VALUE[;KEY=VALUE...]", modify},
    {"thread-dump", "[N]",
     [](std::string_view rest, CollectorServer& s) { return orderPlain(threadDumpLine(), rest, s); }},
    {"discover", "[N]",
     [](std::string_view rest, CollectorServer& s) {
         return orderPlain(discoverLine(std::max(1, s.testRun())), rest, s);
     }},
    {"metadata", "[N]",
     [](std::string_view rest, CollectorServer& s) { return orderPlain(metadataLine(), rest, s); }},
    {"reroute", "HOST PORT [N]", reroute},
    {"ruckus", "ID SECONDS [KEY=VALUE;...]", ruckus},
    {"files", "",
     [](std::string_view rest, CollectorServer& s) { return rest.empty() && (s.printFiles(), true); }},
    {"table", "",
     [](std::string_view rest, CollectorServer& s) {
         return rest.empty() && (s.printTable("so far"), true);
     }},
    {"transactions", "",
     [](std::string_view rest, CollectorServer& s) { return rest.empty() && (s.printTransactions(), true); }},
    {"transaction", "NUMBER", printTransaction},
    {"quit", "", [](std::string_view rest, CollectorServer& s) { return rest.empty() && (s.quit(), true); }},
});

}  // namespace

bool runCommand(const std::string& line, CollectorServer& server) {
    std::string_view rest = line;
    while (rest.ends_with('\r') || rest.ends_with(' ')) rest.remove_suffix(1);
    const std::string_view name = takeWord(rest);
    if (name.empty()) return true;
    while (rest.starts_with(' ')) rest.remove_prefix(1);
    for (const CommandRow& row : kCommands) {
        if (row.name != name) continue;
        if (row.run(rest, server)) return true;
        std::fprintf(stderr, "vxcollector: the command is: %s %s\n", std::string(name).c_str(),
                     row.arguments);
        return false;
    }
    std::fprintf(stderr, "vxcollector: unknown command '%s' (--help tells the commands)\n", line.c_str());
    return false;
}

}  // namespace vx::collector
