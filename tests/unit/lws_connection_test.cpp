#include "commonlibc/lws_connection.h"

#include <string>
#include <thread>

#include "commonlibc/VXDataConnection.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXDataSender.h"
#include "commonlibc/lws_handler.h"
#include "commonlibc/lws_url.h"
#include "tests/support/dumped_records.h"
#include "tests/support/link_fixture.h"
#include "tests/support/ws_bridge.h"

namespace vx::test {
namespace {

constexpr std::int64_t kPatienceUs = 60000000;

// A front for each protocol in front of the collector of the fixture.
class Lws : public LinkFixture, public testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        if (GetParam() == kProtocolWSS) certificate = std::make_unique<TestCertificate>();
        if (GetParam() != kProtocolTCP)
            front = std::make_unique<WsBridge>(collector.port(), certificate.get());
        setenv("http_proxy", "127.0.0.1:1", 1);  // of no concern to the service
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
        connection = vxLwsConnect(
            {"Test", "localhost", "127.0.0.1", port(), GetParam(), text, reads, kPatienceUs, nullptr});
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
    EXPECT_TRUE(vxLwsSendAll(*connection, bytes.data(), static_cast<std::int64_t>(bytes.size()), kPatienceUs,
                             nullptr));
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
        const std::int64_t count = vxLwsRead(*connection, part, sizeof(part), kPatienceUs);
        if (count <= 0) break;
        got.append(part, static_cast<std::size_t>(count));
    }
    writer.join();
    EXPECT_TRUE(got == back) << got.size();

    peer.close();
    EXPECT_EQ(vxLwsRead(*connection, part, sizeof(part), kPatienceUs), -1);
    EXPECT_EQ(vxLwsSend(*connection, "x", 1, 1000), -1);
}

TEST_P(Lws, WhatHadNotArrivedBeginsAgainOnTheNextConnection) {
    constexpr int kRecords = 9000;
    openDumping(*app, 100, 100000);
    std::string all;
    for (int i = 0; i < kRecords; ++i) {
        const std::string record = std::to_string(i) + "," + std::string(900, 'x') + "\n";
        dumpData(record.data(), static_cast<std::int64_t>(record.size()));
        all += record;
    }
    movePartialToReadList(app->data.chain);
    ASSERT_TRUE(create_lws_data_connection("127.0.0.1", port()));
    peer = collector.accept();
    ASSERT_TRUE(peer);
    if (front) front->holdReading(true);
    EXPECT_TRUE(eventually([&] { return processDataLws(0) == kSendNoBytes; })) << "a peer that does not read";
    if (front) {
        front = std::make_unique<WsBridge>(collector.port(), certificate.get());  // resets the old one's
    } else {
        peer.reset();
    }
    EXPECT_TRUE(eventually([&] { return processDataLws(0) == kSendLost; }));
    close_data_connection();

    ASSERT_TRUE(create_lws_data_connection("127.0.0.1", port()));
    peer = collector.accept();
    std::string rest;
    std::thread reader([&] { rest = peer.readToEnd(90); });
    EXPECT_TRUE(
        eventually([&] { return processDataLws(0) == kSendDone && !app->data.chain.VXCollectorBB; }, 60))
        << "a close gives what is on its way no more than a moment";
    close_data_connection();
    reader.join();
    const int first = std::atoi(rest.c_str());
    EXPECT_GT(first, 0) << "some had arrived";
    EXPECT_TRUE(rest == all.substr(all.find("\n" + std::to_string(first) + ",") + 1)) << first;
    EXPECT_EQ(app->data.chain.recordsDropped, 0U);
    closeDumping(*app);
}

INSTANTIATE_TEST_SUITE_P(Protocols, Lws, testing::Values(kProtocolTCP, kProtocolWS, kProtocolWSS));

using LwsSettings = LinkFixture;

TEST_F(LwsSettings, CertificatesAreCheckedOnlyWhenAskedFor) {
    const TestCertificate certificate;
    const WsBridge front(collector.port(), &certificate);
    app->control.ActiveAgentProtocolIndex = kProtocolWSS;
    const struct {
        int verify;
        const char* caFile;
        const char* host;
        bool taken;
        const char* systemStore = "/dev/null";
    } rows[] = {
        {0, "", "127.0.0.1", true},
        {1, "", "localhost", false},  // of no authority that the system knows
        {1, "", "localhost", true, certificate.certificate.c_str()},
        {1, certificate.certificate.c_str(), "localhost", true},
        {1, certificate.certificate.c_str(), "127.0.0.1", false},  // another name
    };
    for (const auto& row : rows) {
        setenv("SSL_CERT_FILE", row.systemStore, 1);
        app->VXBCISetting.tlsVerify = row.verify;
        setSharedText(app->retired, app->VXBCISetting.tlsCaFile, row.caFile);
        EXPECT_EQ(create_lws_control_connection(row.host, front.port()), row.taken) << row.host << row.verify;
        vxLwsEndHandle(app->control.controlWsi);
    }
}

TEST_F(LwsSettings, ThePathNamesTheInstanceAndEndsNoRequestLine) {
    setAppName("a b\r\nX: \"y\"");
    setTierName("t");
    setAppServerName("h\xC3\xA9");
    setSharedText(app->retired, app->VXBCISetting.attributes, "{'k':1}");
    const auto path = [] {
        char* url = setWebsocketUrl();
        std::string text = url;
        VXLB_FREE(url, "websocket url", -1);
        return text;
    };
    const std::string bare = "collector/vx/a%20b%0D%0AX:%20%22y%22/t/h%C3%A9?tierAttributes={%27k%27:1}&";
    EXPECT_EQ(path(), "/" + bare);
    app->VXBCISetting.rawWsPath = 1;
    EXPECT_EQ(path(), bare);
    setAppName(std::string(5000, '"').c_str());
    EXPECT_EQ(path().size(), 13 + 3 * 1010U) << "cut";
}

}  // namespace
}  // namespace vx::test
