// The web page's data while real traffic runs, and rules that are saved on it.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/e2e_fixture.h"
#include "tests/support/page_fixture.h"
#include "tests/support/raw_agent.h"

namespace vx::test {
namespace {

class PageEndToEnd : public EndToEnd {
protected:
    std::string ask(const std::string& head, const std::string& body = "") {
        const std::string told = collector->output();
        const std::size_t at = told.find("page at http://127.0.0.1:");
        FakePeer peer = connectTo(std::atoi(told.c_str() + at + 25));
        EXPECT_TRUE(peer && peer.send(head + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" +
                                      "Content-Type: application/json\r\nContent-Length: " +
                                      std::to_string(body.size()) + "\r\n\r\n" + body));
        const std::string answer = peer.readToEnd();
        const std::size_t end = answer.find("\r\n\r\n");
        return end == std::string::npos ? answer : compactJson(answer.substr(end + 4));
    }
    bool tells(const std::string& head, const std::string& part) {
        return eventually([&] { return ask(head).find(part) != std::string::npos; });
    }
};

TEST_F(PageEndToEnd, CountsWhatArrivesAndTakesRules) {
    dir.write("files/BTRuleConfig", "7|All|2|1|/|0\n");
    startCollector({"--files", dir / "files", "--db", dir / "store.db", "--http", "0"});
    startService();
    deliver(200);
    const std::string count = "\"count\":" + std::to_string(arrived());
    EXPECT_TRUE(tells("GET /api/overview", count)) << ask("GET /api/overview");
    EXPECT_TRUE(tells("GET /api/status", "\"name\":\"")) << ask("GET /api/status");
    EXPECT_TRUE(tells("GET /api/transactions?bt=All", "\"bt\":\"All\""));

    const std::string shown = ask("GET /api/rules");
    const std::string digest = shown.substr(shown.find("\"digest\":\"") + 10, 16);
    const std::string edited = R"({"text":"7|Everything|3|1|/|0\n","digest":")" + digest + "\"}";
    const std::string preview = ask("POST /api/rules/preview", edited);
    EXPECT_NE(preview.find(R"("from":"All","to":"Everything")"), std::string::npos) << preview;
    EXPECT_NE(ask("POST /api/rules", edited).find("\"saved\":true"), std::string::npos);
    EXPECT_TRUE(eventually([this] {  // once the instance has the file
        deliver(10);
        return ask("GET /api/transactions").find("\"bt\":\"Everything\"") != std::string::npos;
    }));
    collector->signal(15);
    EXPECT_EQ(collector->wait(), 0) << collector->output();
}

}  // namespace
}  // namespace vx::test
