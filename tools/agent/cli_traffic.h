// Traffic of vxagent load: transactions of random shape, the same for one seed.
//
// A transaction's times lie behind it: it ends now and began as long ago as its drawn duration. Its methods
// are nested up to `depth` and share that time evenly.
//
// Threads   One per generator.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tools/agent/vxagent.h"

namespace vx::agent {

struct TrafficShape {
    double methods = 100, calls = 20, depth = 4, urls = 20;
    double errorPct = 1, slowPct = 1;  // of the transactions; slow ones last 3 to 8 seconds
    double meanMs = 40;                // of the others
};

class Traffic {
public:
    Traffic(const TrafficShape& shape, unsigned seed);

    // Reports one transaction. False when it was not taken.
    bool report(vxagent* agent);

private:
    bool happens(double percent);
    std::int64_t drawDurationUs();
    const std::string& draw(const std::vector<std::string>& names) { return names[lot_() % names.size()]; }
    void reportCalls(vxagent* agent, std::int64_t transaction, std::int64_t startUs, std::int64_t durationUs);

    const TrafficShape shape_;
    std::mt19937 lot_;
    std::vector<std::string> methods_, urls_;
    std::vector<const std::string*> open_;
    std::vector<std::int64_t> openedUs_;
};

}  // namespace vx::agent
