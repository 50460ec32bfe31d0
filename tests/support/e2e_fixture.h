// Fixture of the end-to-end tests: a temporary home, and the three programs with ports of their own.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/program.h"
#include "tests/support/raw_agent.h"
#include "tests/support/temp_dir.h"
#include "tools/collector/collector_instance.h"
#include "tools/collector/collector_summary.h"

namespace vx::test {

class EndToEnd : public testing::Test {
protected:
    // Starts a collector (its streams go to streamsDir); more arguments as on the command line.
    void startCollector(const std::vector<std::string>& more = {});
    // Writes both settings files and starts the service; waits until it listens.
    void startService(const std::string& moreSettings = "");
    // `vxagent load` with the arguments given, towards the service; an agent of application "shop" unless
    // they name another.
    std::unique_ptr<Program> startLoad(const std::vector<std::string>& arguments);
    // vxagent in another mode.
    std::unique_ptr<Program> startAgent(const std::string& mode, const std::vector<std::string>& arguments);
    // Makes the instance of an application, and waits until its links stand: data that comes before that is
    // lost.
    void makeInstance(const std::string& application);
    // True once data and auto-sensor connections of so many instances stand: before, what the service holds
    // is still growing.
    bool linksStand(int instances = 1) const;
    // The entry points of vxagent's load, as a file that a collector with --files hands out.
    void writeEntryPoints() const;
    // True once instrumentation has been started so many times.
    bool started(int times = 1) const;
    // Orders the end of a run; true once so many have ended.
    bool stopRun(int times = 1) const;
    // The service as a command, its output in that file of the folder.
    Program::Setup serviceCommand(const std::string& output, std::vector<std::string> arguments = {}) const;

    // Runs a load of that many transactions a process to its end, and waits until all have arrived; its
    // output.
    std::string deliver(int transactions, std::vector<std::string> arguments = {},
                        const std::string& application = "shop");
    // Transactions in the collector's streams, and whether as many come in time.
    std::uint64_t arrived() const;
    bool arrive(std::uint64_t count, double seconds = kPatience) const;

    // Text of all streams of one kind ("data", "control").
    std::string streams(const std::string& kind) const;
    // What the data streams add up to.
    collector::Summary summaryOfStreams() const;
    std::string traceText() const;  // of all trace files of the service

    TempDir dir;
    std::string streamsDir = dir / "streams";
    int collectorPort = freePort();
    int proxyPort = freePort();
    // Ports of relays in between: what the service is told of the collector, what agents are told of it; 0:
    // none.
    int collectorRelayPort = 0, proxyRelayPort = 0;
    // What the collector listens for and the service is told: "TCP", "WS" or "WSS".
    std::string collectorWay = "TCP";
    std::string serviceWay;         // what the service is told instead; empty: the same
    std::string agentWay = "TCP";   // of agents to the service
    std::string proxySettings;      // further lines of proxysetting.conf
    int collectors = 0, loads = 0;  // started so far
    std::uint64_t delivered = 0;    // by deliver()
    std::unique_ptr<Program> collector, service;

private:
    struct ReadSoFar {
        struct File {
            std::size_t at = 0;  // read up to here
            collector::InstanceState instance{};
        };
        std::string folder{};
        std::map<std::string, File> files{};
        collector::Summary summary{};
    };
    void readStreams() const;
    mutable ReadSoFar read_;
};

// Rows of parameterized tests name these by their member `name`.
inline constexpr auto byName = [](const auto& row) { return std::string(row.param.name); };

// Value of `key` in the lines of key=value pairs that begin with `line`, summed.
std::uint64_t reported(const std::string& output, const std::string& line, const std::string& key);

}  // namespace vx::test
