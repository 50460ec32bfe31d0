// vxbench_rules: what finding the rule of a request costs, with few rules and with many.
//
// Each set is asked for the URLs of all its rules in turn (60 characters each, every second one found). The
// exit code says whether a look-up took memory.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_allocations.h"
#include "commonlibc/vxbt/vxbt_state_machine.h"

namespace vx::bench {
namespace {

constexpr unsigned kSeed = 20140101;
constexpr std::size_t kUrlLength = 60;
constexpr int kRounds = 5;

struct Rule {
    std::string pattern, method;
    int matchType, mode;
};
struct Lookup {
    std::string url, query, method;
};
struct Set {
    std::vector<Rule> rules;
    std::vector<Lookup> lookups;
};

double seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string filled(std::string url, std::mt19937& random) {
    while (url.size() < kUrlLength) url += static_cast<char>('a' + random() % 26);
    return url;
}

// Exact, partial, wildcard, query and method rules by turns.
Set makeSet(int count, bool wild) {
    std::mt19937 random(kSeed);
    Set set;
    for (int i = 0; i < count; ++i) {
        const std::string url = filled("/shop/api/v2/section-" + std::to_string(random() % 40) + "/", random);
        Lookup lookup{url, "page=2&item=" + std::to_string(i), "POST"};
        switch (wild ? 5 : i % 5) {
            case 0:
                set.rules.push_back({url, "", 0, 0});
                break;
            case 1:
                set.rules.push_back({url.substr(0, 40), "", 1, 0});
                break;
            case 2:
                set.rules.push_back({url.substr(0, 35) + "*" + url.substr(50), "", 0, 0});
                break;
            case 3:
                set.rules.push_back({url + "*item=" + std::to_string(i) + "*", "", 0, 1});
                break;
            case 4:
                set.rules.push_back({url, "POST", 0, 2});
                break;
            default:
                set.rules.push_back({"/shop/*" + url.substr(30), "", 0, 0});
        }
        if (i % 2) lookup.url = filled(url.substr(0, 30), random);
        set.lookups.push_back(lookup);
    }
    return set;
}

double load(vxlb_state_machine& machine, const Set& set) {
    const double before = seconds();
    vxlb_state_machine_init(&machine, 0);
    for (int id = 2; const Rule& rule : set.rules)
        vxlb_state_machine_add(&machine, rule.pattern.data(), rule.pattern.size(), rule.method.data(),
                               rule.method.size(), id++, rule.matchType, rule.mode);
    return seconds() - before;
}

// One pass over the look-ups, as often as `times` says; seconds per look-up.
double pass(const vxlb_state_machine& machine, const Set& set, std::int64_t times, std::int64_t& found) {
    std::int64_t done = 0;
    const double before = seconds();
    while (done < times)
        for (const Lookup& lookup : set.lookups) {
            found += vxlb_state_machine_search(&machine, lookup.url.data(),
                                               static_cast<std::int64_t>(lookup.url.size()),
                                               lookup.query.c_str(), lookup.method.c_str()) > 1;
            ++done;
        }
    return (seconds() - before) / static_cast<double>(done);
}

// False when a look-up took memory.
bool measure(const char* name, int count, bool wild, std::int64_t times) {
    const Set set = makeSet(count, wild);
    vxlb_state_machine machine{};
    const double loading = load(machine, set);
    std::int64_t found = 0, ignored = 0;
    pass(machine, set, 1, found);
    const std::int64_t before = allocations();
    double best = 1;
    for (int round = 0; round < kRounds; ++round)
        best = std::min(best, pass(machine, set, times / kRounds, ignored));
    const std::int64_t taken = allocations() - before;
    std::printf(
        "%-6s rules=%d found=%lld ns_per_lookup=%.1f load_ms=%.2f states=%d rows=%d allocations=%lld\n", name,
        count, static_cast<long long>(found), best * 1e9, loading * 1e3, machine.nextState, machine.rowCount,
        static_cast<long long>(taken));
    vxlb_state_machine_free(&machine);
    return taken == 0;
}

int run(int argc, char** argv) {
    std::int64_t times = 1000000;
    if (argc == 3 && std::strcmp(argv[1], "--lookups") == 0) times = std::strtoll(argv[2], nullptr, 10);
    if ((argc != 1 && argc != 3) || times < 1) {
        const bool help = argc == 2 && std::strcmp(argv[1], "--help") == 0;
        std::fputs("usage: vxbench_rules [--lookups N]   look-ups of each set (default 1,000,000)\n",
                   help ? stdout : stderr);
        return help ? 0 : 2;
    }
    bool none = true;
    for (const int count : {10, 100, 1000}) none &= measure("mixed", count, false, times);
    for (const int count : {10, 1000}) none &= measure("wild", count, true, times);
    return none ? 0 : 1;
}

}  // namespace
}  // namespace vx::bench

int main(int argc, char** argv) {
    return vx::bench::run(argc, argv);
}
