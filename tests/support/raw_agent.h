// An agent's connections by hand: for tests that send what no agent would, or come and go by the thousand.
//
//     RawAgent agent(proxyPort, "shop", 4711);
//     ASSERT_TRUE(agent.start());                    // registered, and told to start
//     agent.openData().send(startFrame(...));
#pragma once

#include <cstdint>
#include <string>

#include "tests/support/fake_collector.h"
#include "tools/agent/vxagent_lines.h"

namespace vx::test {

// A connection to a port of loopback; false as a condition when it was refused.
inline FakePeer connectTo(int port, int fd = -1) {
    return FakePeer(connectedTo(port, fd));
}

class RawAgent {
public:
    RawAgent(int proxyPort, const std::string& application, std::int64_t pid) {
        identity_.host = "127.0.0.1";
        identity_.port = proxyPort;
        identity_.application = application;
        identity_.tier = "Tier";
        identity_.server = "host7";
        identity_.agent = "raw";
        identity_.agentType = "Dotnet";
        identity_.pid = pid;
    }
    agent::Identity& identity() { return identity_; }

    // Registers and waits for the start line.
    bool start(double seconds = kPeerSeconds) {
        control_ = connectTo(identity_.port);
        if (!control_ || !control_.send(agent::controlLine(identity_, 0))) return false;
        const auto lines = control_.readLinesUpTo("vx_control_req:action=start_instrumentation", seconds);
        for (const std::string& line : lines) procIndex_ = agent::lastNumber(line, "procIndex", procIndex_);
        ids_ = agent::startIds(lines.back());
        return lines.back() != kNoLine;
    }
    const FakePeer& openData() {
        data_ = connectTo(identity_.port);
        data_.send(openDataLine());
        return data_;
    }
    // The line that announces a data connection.
    std::string openDataLine() const { return agent::dataLine(identity_, ids_); }
    FakePeer& control() { return control_; }
    FakePeer& data() { return data_; }
    int procIndex() const { return procIndex_; }  // given by the proxy, -1 before

private:
    agent::Identity identity_;
    agent::StartIds ids_;
    FakePeer control_, data_;
    int procIndex_ = -1;
};

}  // namespace vx::test
