#include "bench/bench_sink.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace vx::bench {

namespace {

constexpr const char* kReply =
    "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=3%1%10%60;ProtoVersion=1;"
    "supportedProtocols=TCP;procIndex=1\n"
    "vx_control_req:action=start_instrumentation;tierID=1;vxAppServerID=1;appID=1;testIdx=1;"
    "zorEpochDiff=1388534400;bciInstrSessionPct=100;\n";

}  // namespace

DataSink::DataSink() {
    thread_ = std::thread([this] {
        std::vector<test::FakePeer> peers;
        while (!stop_.load()) {
            std::vector<pollfd> polled;
            for (const test::FakePeer& peer : peers) polled.push_back({peer.descriptor(), POLLIN, 0});
            if (test::FakePeer peer = listener_.accept(peers.empty() ? 0.1 : 0))
                peers.push_back(std::move(peer));
            ::poll(polled.data(), polled.size(), 20);
            for (std::size_t i = 0; i < polled.size(); ++i)
                if (polled[i].revents) serve(peers[i]);
        }
    });
}

DataSink::~DataSink() {
    stop_.store(true);
    thread_.join();
}

void DataSink::awaitData() const {
    while (dataConnections_.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

// A control connection is answered when its line comes; the lines of all are counted.
void DataSink::serve(test::FakePeer& peer) {
    static std::vector<char> bytes(1 << 20);
    const ssize_t count = ::recv(peer.descriptor(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count <= 0) {
        peer.close();
        return;
    }
    const std::string_view text(bytes.data(), static_cast<std::size_t>(count));
    lines_ += static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
    if (text.starts_with("vx_ctrl_msg_req:")) peer.send(kReply);
    if (text.starts_with("vx_data_msg_req:")) ++dataConnections_;
}

}  // namespace vx::bench
