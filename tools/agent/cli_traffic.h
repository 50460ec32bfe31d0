// Traffic of vxagent load: transactions of random shape, the same for one seed.
//
// A transaction's times lie behind it: it ends now and began as long ago as its drawn duration. Its methods
// are nested up to `depth` and share that time evenly; callouts stand inside them at even distances. What an
// exception ends reports that exception first.
//
// Threads   One per generator.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tools/agent/cli_callouts.h"
#include "tools/agent/vxagent.h"

namespace vx::agent {

struct TrafficShape {
    double methods = 100, calls = 20, depth = 4, urls = 20;
    double errorPct = 1, slowPct = 1;  // of the transactions; slow ones last 3 to 8 seconds
    double meanMs = 40;                // of the others
    double callouts = 0;               // of a transaction
    double backends = 3;               // of a kind of callout
    double calloutErrorPct = 5;        // callouts of status 500
    double exceptionPct = 0;           // methods and callouts that an exception ends
    double exceptionClasses = 5;       // different ones
    double headerPct = 0;              // transactions with request and response headers
    double chainPct = 0;               // transactions that another tier has called
    double callers = 3;                // different ones
    CalloutMix mix{4, 3, 2, 1};
};

// Of the transactions that were taken.
struct TrafficCounts {
    std::uint64_t transactions = 0, callouts = 0, exceptions = 0, chained = 0, headers = 0;
};

class Traffic {
public:
    Traffic(const TrafficShape& shape, unsigned seed);

    void report(vxagent* agent);
    const TrafficCounts& counts() const { return counts_; }

private:
    struct Clock {
        std::int64_t nowUs, stepUs;
    };
    bool happens(double percent);
    std::int64_t drawDurationUs();
    const std::string& draw(const std::vector<std::string>& names) { return names[lot_() % names.size()]; }
    std::string drawChain(std::int64_t startUs);
    void reportCalls(vxagent* agent, std::int64_t transaction, std::int64_t startUs, std::int64_t durationUs);
    void openMethod(vxagent* agent, std::int64_t transaction, Clock& clock);
    void closeMethod(vxagent* agent, std::int64_t transaction, Clock& clock);
    void reportCallout(vxagent* agent, std::int64_t transaction, Clock& clock);
    void reportRequestHeaders(vxagent* agent, std::int64_t transaction);
    void reportException(vxagent* agent, std::int64_t transaction, const vxagent_method& method);
    void leave(vxagent* agent, std::int64_t transaction, const vxagent_method& method);

    const TrafficShape shape_;
    std::mt19937 lot_;
    std::discrete_distribution<std::size_t> kinds_;
    std::vector<std::string> methods_, urls_;
    std::vector<const std::string*> open_;
    std::vector<std::int64_t> openedUs_;
    TrafficCounts counts_;
};

}  // namespace vx::agent
