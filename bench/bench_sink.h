// A collector that starts whoever connects and counts the lines of what it gets.
//
// Threads   One for each connection; they end with the process.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "tests/support/fake_collector.h"

namespace vx::bench {

class DataSink {
public:
    DataSink();
    ~DataSink();
    DataSink(const DataSink&) = delete;
    DataSink& operator=(const DataSink&) = delete;

    int port() const { return listener_.port(); }
    // Waits until the service sends records here.
    void awaitData() const;
    std::uint64_t lines() const { return lines_.load(); }  // records, and the connect line

private:
    void serve(test::FakePeer& peer);

    test::FakeCollector listener_;
    std::atomic<bool> stop_{false};
    std::atomic<int> dataConnections_{0};
    std::atomic<std::uint64_t> lines_{0};
    std::thread thread_;
};

}  // namespace vx::bench
