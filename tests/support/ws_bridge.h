// A WebSocket front of a plain listener: what comes over WS or WSS goes on over TCP, and back.
//
//     FakeCollector collector;
//     WsBridge front(collector.port());
//     ... the code under test connects to 127.0.0.1:front.port() over WebSocket ...
//     FakePeer peer = collector.accept();            // the payload, without frames
//
// So a scenario of plain sockets runs over WebSocket without a change. The end of one side ends the other.
//
// Threads   One of its own; the calls may come from any other.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "tests/support/temp_dir.h"

namespace vx::test {

// A certificate for "localhost" that signs itself, in a folder of its own.
struct TestCertificate {
    TestCertificate();

    TempDir folder;
    std::string certificate, key;  // paths
};

class WsBridge {
public:
    // With a certificate it takes WSS, else WS.
    explicit WsBridge(int targetPort, const TestCertificate* certificate = nullptr);
    ~WsBridge();
    WsBridge(const WsBridge&) = delete;
    WsBridge& operator=(const WsBridge&) = delete;

    int port() const;
    // How many messages of each kind came.
    int textMessages() const;
    int binaryMessages() const;
    // From now on nothing is read from who connected, until false.
    void holdReading(bool on);

private:
    struct Inside;
    std::unique_ptr<Inside> inside_;
};

}  // namespace vx::test
