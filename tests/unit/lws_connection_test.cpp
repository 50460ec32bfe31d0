#include "commonlibc/lws_connection.h"

#include <algorithm>
#include <string>
#include <thread>

#include "commonlibc/lws_handler.h"
#include "commonlibc/lws_url.h"
#include "tests/support/link_fixture.h"
#include "tests/support/ws_bridge.h"

namespace vx::test {
namespace {

// A front for each protocol in front of the collector of the fixture.
class Lws : public LinkFixture, public testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        if (GetParam() == kProtocolWSS) certificate = std::make_unique<TestCertificate>();
        if (GetParam() != kProtocolTCP)
            front = std::make_unique<WsBridge>(collector.port(), certificate.get());
        app->control.ActiveAgentProtocolIndex = GetParam();
        app->control.lws_active = 1;
    }
    void TearDown() override {
        vxLwsEnd(connection);
        front.reset();
        LinkFixture::TearDown();
    }
    int port() const { return front ? front->port() : collector.port(); }
    void open(bool reads = true, bool text = true) {
        connection = vxLwsConnect({"Test", "127.0.0.1", port(), GetParam(), text, reads, 10000000, nullptr});
        ASSERT_NE(connection, nullptr);
        peer = collector.accept();
        ASSERT_TRUE(peer);
    }

    std::unique_ptr<TestCertificate> certificate;
    std::unique_ptr<WsBridge> front;
    VXLwsConnection* connection = nullptr;
};

TEST_P(Lws, CarriesTheSameBytesBothWays) {
    open();
    std::string bytes;
    for (int i = 0; i < 100000; ++i) bytes += "line " + std::to_string(i) + (i % 7 ? "\n" : "\xC3\xA9\n");
    std::string got;
    std::thread reader([&] { got = peer.readBytes(bytes.size()); });
    EXPECT_TRUE(
        vxLwsSendAll(*connection, bytes.data(), static_cast<std::int64_t>(bytes.size()), 10000000, nullptr));
    reader.join();
    EXPECT_TRUE(got == bytes);
    EXPECT_TRUE(eventually([&] { return vxLwsUnacknowledged(*connection) == 0; }));

    // The other way in reads that are slower than the peer: nothing is lost, nothing piles up.
    std::string back(1 << 20, 'z');
    for (std::size_t i = 0; i < back.size(); i += 100) back[i] = i % 3 ? '\0' : '\n';
    std::thread writer([&] { peer.send(back); });
    got.clear();
    char part[5000];
    while (got.size() < back.size()) {
        const std::int64_t count = vxLwsRead(*connection, part, sizeof(part), 5000000);
        if (count <= 0) break;
        got.append(part, static_cast<std::size_t>(count));
    }
    writer.join();
    EXPECT_TRUE(got == back) << got.size();

    peer.close();
    EXPECT_EQ(vxLwsRead(*connection, part, sizeof(part), 5000000), -1);
    EXPECT_EQ(vxLwsSend(*connection, "x", 1, 1000), -1);
}

INSTANTIATE_TEST_SUITE_P(Protocols, Lws, testing::Values(kProtocolTCP, kProtocolWS, kProtocolWSS));

}  // namespace
}  // namespace vx::test
