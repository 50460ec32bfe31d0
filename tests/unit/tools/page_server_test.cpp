// The page's server over real sockets: what it takes, what it refuses, and whom it does not wait for.
#include "tools/collector/page_server.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <latch>
#include <list>
#include <vector>

#include "tests/support/fake_collector.h"
#include "tests/support/program.h"
#include "tests/support/raw_agent.h"

namespace vx::collector {
namespace {

using test::FakePeer;

// Answers with what it was asked; "/large" with more than socket buffers hold.
PageAnswer echo(const PageRequest& request) {
    PageAnswer answer;
    answer.type = "text/plain";
    if (request.path == "/large") {
        answer.body.assign(32 << 20, 'x');
        return answer;
    }
    answer.body = (request.post ? "POST " : "GET ") + request.path;
    for (const auto& [name, value] : request.arguments) answer.body += " " + name + "=" + value;
    answer.body +=
        " [" + request.host + "|" + request.origin + "|" + request.cookie + "|" + request.body + "]";
    return answer;
}

class PageServerTest : public testing::Test {
protected:
    explicit PageServerTest(PagePatience patience = {.request = 60, .answer = 60, .idle = 60})
        : server(
              "127.0.0.1", 0, echo, [](const PageRequest&) { return PageTurn::kSoon; }, patience) {
        std::string error;
        EXPECT_TRUE(server.start(error)) << error;
    }
    FakePeer send(const std::string& text) {
        FakePeer peer = test::connectTo(server.port());
        EXPECT_TRUE(peer && peer.send(text));
        return peer;
    }
    // What comes until the server ends the connection.
    std::string exchange(const std::string& text) { return send(text).readToEnd(); }
    bool serves() {
        return test::eventually([this] { return exchange(get("/again")).ends_with("GET /again [h:1|||]"); });
    }
    static std::string get(const std::string& path, const std::string& headers = "Connection: close\r\n") {
        return "GET " + path + " HTTP/1.1\r\nHost: h:1\r\n" + headers + "\r\n";
    }

    PageServer server;
};
class ImpatientServer : public PageServerTest {
protected:
    ImpatientServer() : PageServerTest({.request = 1, .answer = 1, .idle = 1}) {}
};

TEST_F(PageServerTest, TakesRequestsApart) {
    const std::string told =
        exchange(get("/a%20b?x=1%262&y&z=%3Cb%3E", "Cookie: k=v\r\nConnection: close\r\n"));
    EXPECT_TRUE(told.ends_with("\r\n\r\nGET /a b x=1&2 y= z=<b> [h:1||k=v|]")) << told;
    for (const char* header : {"HTTP/1.1 200 ", "\r\ncontent-security-policy: default-src 'self';",
                               "\r\nx-content-type-options: nosniff\r\n", "\r\ncache-control: no-store\r\n"})
        EXPECT_NE(told.find(header), std::string::npos) << header << "\n" << told;

    const std::string body(200'000, 'b');
    const std::string posted =
        exchange("POST /p HTTP/1.1\r\nHost: h:1\r\nOrigin: http://h:1\r\nContent-Length: " +
                 std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
    EXPECT_TRUE(posted.ends_with("POST /p [h:1|http://h:1||" + body + "]"));
}

TEST_F(PageServerTest, ServesOneRequestAfterAnotherOnAConnection) {
    const std::string told = exchange(get("/1", "") + get("/2", "") + get("/3"));  // all at once
    EXPECT_EQ(test::occurrences(told, "HTTP/1.1 200 "), 3);
    EXPECT_TRUE(told.ends_with("GET /3 [h:1|||]")) << told;
    FakePeer peer = send(get("/1", ""));
    EXPECT_TRUE(peer.readBytes(told.find("[h:1|||]") + 8).ends_with("GET /1 [h:1|||]"));
    ASSERT_TRUE(peer.send(get("/2")));
    EXPECT_TRUE(peer.readToEnd().ends_with("GET /2 [h:1|||]"));
    const std::string bare = exchange("HEAD /large HTTP/1.1\r\nHost: h:1\r\n\r\n" + get("/4"));
    EXPECT_NE(bare.find("content-length: 33554432\r\n"), std::string::npos) << bare.substr(0, 500);
    EXPECT_LT(bare.size(), 4000u);
    EXPECT_TRUE(bare.ends_with("GET /4 [h:1|||]"));
    // What stands behind a body is not taken: once it was answered for ever.
    const std::string post = "POST /p HTTP/1.1\r\nHost: h:1\r\nContent-Length: 2\r\n\r\nab";
    const std::string posted = exchange(post + post);
    EXPECT_EQ(test::occurrences(posted, "HTTP/1.1 200 "), 1);
    EXPECT_TRUE(posted.ends_with("POST /p [h:1|||ab]")) << posted.substr(0, 1000);
}

TEST_F(PageServerTest, RefusesWhatItDoesNotServe) {
    const struct {
        const char* request;
        const char* answer;  // how it begins; empty: the connection just ends
    } rows[] = {
        {"PUT / HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\nConnection: close\r\n\r\n", "HTTP/1.1 405 "},
        {"POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 1048577\r\n\r\n", "HTTP/1.1 413 "},
        {"POST / HTTP/1.1\r\nHost: h\r\nContent-Length: -1\r\n\r\n", "HTTP/1.1 411 "},
        {"POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
         "HTTP/1.1 411 "},
        {"GET / HTTP/1.1\r\nHost: h\r\nContent-Length: 37\r\n\r\nGET /smuggled HTTP/1.1\r\nHost: h:1\r\n\r\n",
         "HTTP/1.1 400 "},
        {"GET / HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: "
         "13\r\n"
         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n",
         ""},
        {"\x16\x03\x01\x02\x00\x01\x00", ""},
    };
    for (const auto& row : rows) {
        const std::string told = exchange(row.request);
        EXPECT_TRUE(told.starts_with(row.answer)) << row.request << "\n" << told;
        EXPECT_EQ(told.find("HTTP/1.1 101"), std::string::npos) << told;
        EXPECT_EQ(told.find("HTTP/1.1 200"), std::string::npos) << told;
    }
    EXPECT_EQ(exchange(get("/", "X: " + std::string(20000, 'x') + "\r\n")).find("HTTP/1.1 200"),
              std::string::npos);
    EXPECT_TRUE(exchange(get("/after")).ends_with("GET /after [h:1|||]"));
}

TEST_F(ImpatientServer, WaitsForNobody) {
    FakePeer deaf = send(get("/large"));  // never reads
    FakePeer head = send("GET / HTTP/1.1\r\n"), nothing = send("");
    EXPECT_TRUE(serves());
    EXPECT_EQ(exchange("POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 10\r\n\r\nhalf"), "");
    for (FakePeer* peer : {&deaf, &head, &nothing})
        EXPECT_TRUE(test::eventually([&] { return !peer->send("\r\n") || !peer->send("\r\n"); }));
}

TEST_F(PageServerTest, SilentOnesGiveWay) {
    std::list<FakePeer> silent;
    while (silent.size() < 2 * kMostConnections) silent.push_back(send("G"));
    EXPECT_TRUE(serves());
}

// While one question is answered, others of all kinds come: what is at hand goes before those that take long,
// and of these only so many are kept.
TEST(PageServerTurns, LongQuestionsHoldUpNobodyElse) {
    std::vector<std::string> order;  // of the server's thread until it has ended
    std::latch asked(1), go(1);
    const auto handler = [&](const PageRequest& request) {
        if (request.path == "/first") {
            asked.count_down();
            go.wait();
        }
        order.push_back(request.path);
        return echo(request);
    };
    const auto turns = [](const PageRequest& request) {
        return request.path == "/late"   ? PageTurn::kLate
               : request.path == "/soon" ? PageTurn::kSoon
                                         : PageTurn::kNow;
    };
    PageServer server("127.0.0.1", 0, handler, turns, {.request = 60, .answer = 60, .idle = 60});
    std::string error;
    ASSERT_TRUE(server.start(error)) << error;
    std::list<FakePeer> peers;
    const auto ask = [](FakePeer& peer, const std::string& path, const std::string& headers = "") {
        EXPECT_TRUE(peer.send("GET " + path + " HTTP/1.1\r\nHost: h:1\r\n" + headers + "\r\n"));
    };
    // All connections are taken before, so that what comes on them is seen at one and the same time.
    while (peers.size() < 3 * kMostLate + 3) {
        peers.push_back(test::connectTo(server.port()));
        ask(peers.back(), "/hello");
        EXPECT_TRUE(peers.back().readBytes(12).ends_with(" 200"));
    }
    ask(peers.front(), "/first", "Connection: close\r\n");
    asked.wait();
    for (auto peer = std::next(peers.begin()); peer != peers.end(); ++peer) {
        const auto left = std::distance(peer, peers.end());
        ask(*peer, left == 1 ? "/now" : left == 2 ? "/soon" : "/late", "Connection: close\r\n");
    }
    for (const FakePeer& peer : peers)  // all are there when the server looks again
        ASSERT_TRUE(test::eventually([&] {
            int underway = 1;
            return ::ioctl(peer.descriptor(), SIOCOUTQ, &underway) == 0 && underway == 0;
        }));
    go.count_down();
    int refused = 0;
    for (FakePeer& peer : peers) refused += test::occurrences(peer.readToEnd(), "HTTP/1.1 503 ");
    server.stop();
    EXPECT_EQ(refused, 2 * kMostLate);
    order.erase(order.begin(), std::find(order.begin(), order.end(), "/first"));
    ASSERT_EQ(order.size(), kMostLate + 3);
    EXPECT_EQ(order[1], "/now");
    EXPECT_TRUE(order[2] == "/soon" || order[3] == "/soon");
}

TEST_F(PageServerTest, KeepsSoMuchForThoseWhoDoNotRead) {
    std::list<FakePeer> deaf;
    std::string told;
    while (told.empty() && deaf.size() < 4) {
        deaf.push_back(send(get("/large")));
        told = deaf.back().readBytes(12);
        if (told == "HTTP/1.1 200") told.clear();
    }
    EXPECT_EQ(told, "HTTP/1.1 503");
    EXPECT_EQ(deaf.size(), kMostWaiting / (32 << 20) + 1);
}

}  // namespace
}  // namespace vx::collector
