// The page's answers without a socket: who may ask, what rules say, and how JSON is written.
#include <apr_general.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>

#include "tests/support/page_fixture.h"
#include "tests/support/temp_dir.h"
#include "tools/collector/page_api.h"
#include "tools/collector/page_json.h"

namespace vx::collector {
namespace {

using test::pageGet;
using test::pagePost;

constexpr const char* kToken = "0123456789abcdef";
constexpr const char* kJson = "application/json";

class Page : public testing::Test {
protected:
    explicit Page(std::string token = "") : guard(std::move(token), {"collector.example"}) {
        apr_initialize();
    }
    ~Page() override { apr_terminate(); }

    PageAnswer ask(const PageRequest& request, std::int64_t now = 0) { return api.answer(request, now); }
    std::string json(const PageRequest& request) { return test::compactJson(ask(request).body); }

    test::TempDir dir;
    StatusBoard board;
    std::vector<RequestRow> recent;
    PageRules rules{dir.path(), [this](std::size_t, std::vector<RequestRow>& out) {
                        out = recent;
                        return true;
                    }};
    PageGuard guard;
    const PageFile files[2] = {{"/index.html", "text/html; charset=utf-8", "<html>"},
                               {"/style.css", "text/css", "*{}"}};
    PageApi api{{&board, nullptr, nullptr, &rules, &guard, files}};
};

class GuardedPage : public Page {
protected:
    GuardedPage() : Page(kToken) {}
    PageAnswer login(const std::string& token, std::int64_t now = 0) {
        PageRequest request = pagePost("/login", "x=1&token=" + token);
        request.contentType = "application/x-www-form-urlencoded";
        return ask(request, now);
    }
};

TEST_F(Page, AnswersThisMachineOnly) {
    const struct {
        const char *host, *origin, *type, *path;
        bool post;
        int status;
    } rows[] = {
        {"127.0.0.1:8080", "", "", "/", false, 200},
        {"[::1]:8080", "", "", "/index.html", false, 200},
        {"Collector.example", "", "", "/", false, 200},
        {"evil.example:8080", "", "", "/", false, 403},
        {"127.0.0.1.evil.example", "", "", "/", false, 403},
        {"", "", "", "/", false, 403},
        {"localhost:8080", "", "", "/../etc/passwd", false, 404},
        {"localhost", "", "", "/api/status", false, 503},    // no picture yet
        {"localhost", "", "", "/api/overview", false, 503},  // no store
        {"localhost", "", kJson, "/api/transactions/7", true, 405},
        {"localhost", "", "application/jsonx", "/api/rules/try", true, 415},
        {"localhost", "http://evil.example", kJson, "/api/rules/try", true, 403},
        {"localhost", "null", kJson, "/api/rules/try", true, 403},
        {"localhost", "http://localhost", "application/json; charset=utf-8", "/api/rules/try", true, 400},
    };
    for (const auto& row : rows) {
        PageRequest request = pageGet(row.path);
        request.host = row.host;
        request.origin = row.origin;
        request.contentType = row.type;
        request.post = row.post;
        EXPECT_EQ(ask(request).status, row.status) << row.host << " " << row.origin << " " << row.path;
    }
}

TEST_F(GuardedPage, AsksForItsToken) {
    EXPECT_EQ(ask(pageGet("/api/status")).status, 401);
    EXPECT_EQ(ask(pagePost("/api/rules", "{}")).status, 401);
    EXPECT_EQ(ask(pageGet("/")).location, "/login");
    PageRequest bearer = pageGet("/");
    for (const char* given : {"Bearer ", "Bearer 0123456789abcdee", "Bearer 0123456789abcdef0", kToken,
                              "Bearer 0123456789abcdef"}) {
        bearer.authorization = given;
        EXPECT_EQ(ask(bearer).status, given == std::string("Bearer ") + kToken ? 200 : 303) << given;
    }

    EXPECT_EQ(login("wrong").status, 401);
    const std::string cookie = login("%30123456789abcdef").setCookie;
    EXPECT_NE(cookie.find("; HttpOnly; SameSite=Strict"), std::string::npos);
    EXPECT_EQ(cookie.find(kToken), std::string::npos);
    PageRequest browser = pageGet("/"), leaving = pagePost("/logout", "");
    browser.cookie = leaving.cookie = "a=b; " + cookie.substr(0, cookie.find(';'));
    EXPECT_EQ(ask(browser, kSessionSeconds - 1).status, 200);
    EXPECT_EQ(ask(leaving).location, "/login");
    EXPECT_EQ(ask(browser).status, 303);

    const std::string next = login(kToken).setCookie;
    browser.cookie = next.substr(0, next.find(';'));
    for (std::size_t i = 1; i < kMostSessions; ++i) login(kToken);
    EXPECT_EQ(ask(browser).status, 200);
    EXPECT_EQ(ask(browser, kSessionSeconds).status, 303);
    login(kToken);
    EXPECT_EQ(ask(browser).status, 303);
}

TEST_F(Page, TriesRules) {
    dir.write("BTRuleConfig", "7|Shop|2|1|/shop|0\n7|Cart|3|0|/shop/cart|0|1|x=1\n");
    const std::string told = json(pagePost("/api/rules/try", R"({"url":"/shop/cart?x=1","method":"GET"})"));
    for (const char* part :
         {R"("bt":"Cart","btId":3,)", R"("outcome":"outdone","reason":"line 2 asks for more)",
          R"("outcome":"names")", R"("why":"line 2 names it \"Cart\"")"})
        EXPECT_NE(told.find(part), std::string::npos) << part << "\n" << told;
    const std::string edited = json(pagePost(
        "/api/rules/try", R"({"url":"/a","headers":{"S":"e"},"text":"1|1|n|d|-|-|Request-Header|S|-"})"));
    EXPECT_NE(edited.find(R"("bt":"/a.e")"), std::string::npos) << edited;
    for (const char* bad : {"[]", "{\"url\":7}", "{\"url\":\"/a\",\"headers\":{\"S\":1}}",
                            "{\"url\":\"/a\",\"text\":\"a\\u0000b\"}"})
        EXPECT_EQ(ask(pagePost("/api/rules/try", bad)).status, 400) << bad;
    EXPECT_EQ(
        ask(pagePost("/api/rules/try", R"({"url":"/a","text":")" + std::string(300000, '#') + "\"}")).status,
        413);
}

TEST_F(Page, PreviewsHowRequestsMove) {
    dir.write("BTRuleConfig", "7|Shop|2|1|/shop|0\n7|Order|4|0|/o|0|2|-|POST\n7|Old|5|0|/gone|0\n");
    recent = {{9, "Shop", "/shop/cart", "a=1", {}},
              {8, "Shop", "/shop", "", {}},
              {7, "Order", "/o", "", {}},  // a POST, then: only its BT tells
              {6, "Others", "/o", "", {}},
              {5, "Past", "/shop", "", {}}};  // named by other rules
    const std::string told =
        json(pagePost("/api/rules/preview", R"({"text":"7|Cart|3|1|/shop/cart|0\n7|Shop|2|1|/shop|1\n)"
                                            R"(7|Place|4|0|/o|0|2|-|POST\n7|bad\n"})"));
    for (
        const char* part :
        {R"("looked":5,"moved":4)",
         R"({"count":2,"examples":[{"id":"8","url":"/shop"},{"id":"5","url":"/shop"}],"from":"Shop","to":null})",
         R"({"count":1,"examples":[{"id":"9","url":"/shop/cart?a=1"}],"from":"Shop","to":"Cart"})",
         R"({"count":1,"examples":[{"id":"7","url":"/o"}],"from":"Order","to":"Place"})",
         R"({"after":1,"before":1,"bt":"Others"})", R"("1 of them have a BT that the rules in force)",
         R"("fault":"fewer than 6 fields","kind":"pattern rule","meaning":"","number":4)"})
        EXPECT_NE(told.find(part), std::string::npos) << part << "\n" << told;

    std::remove((dir / "BTRuleConfig").c_str());  // then the names that they have stand for the rules
    const std::string first = json(pagePost("/api/rules/preview", R"({"text":"7|Shop|2|1|/shop|0"})"));
    EXPECT_NE(first.find(R"("looked":5,"moved":2)"), std::string::npos) << first;
}

TEST_F(Page, SavesWhatWasEdited) {
    const auto shown = [this](const char* member) {
        const std::string told = json(pageGet("/api/rules"));
        const std::size_t at = told.find("\"" + std::string(member) + "\":") + std::strlen(member) + 3;
        return told.substr(at, told.find(',', at) - at);
    };
    const auto save = [this](const std::string& digest, const char* text = "") {
        return ask(
            pagePost("/api/rules", R"({"text":")" + std::string(text) + R"(","digest":)" + digest + "}"));
    };
    EXPECT_EQ(shown("digest") + shown("editable"), "\"none\"true");
    const PageAnswer first = save("\"none\"", R"(7|A|2|0|/a|0\n)");
    EXPECT_EQ(dir.read("BTRuleConfig"), "7|A|2|0|/a|0\n");
    EXPECT_NE(test::compactJson(first.body).find("\"version\":" + shown("version")), std::string::npos);

    // Two edit at once: the second must read again what the first has saved. So when the file vanishes.
    const std::string digest = shown("digest");
    EXPECT_EQ(save(digest, R"(7|B|2|0|/b|0\n)").status, 200);
    EXPECT_EQ(save(digest, "lost").status, 409);
    EXPECT_EQ(dir.read("BTRuleConfig"), "7|B|2|0|/b|0\n");
    const std::string file = dir / "BTRuleConfig";
    const std::string second = shown("digest");
    std::remove(file.c_str());
    EXPECT_EQ(save(second).status, 409);
    EXPECT_EQ(PageRules("").save(pagePost("/api/rules", "{}")).status, 423);
}

// What somebody has locked, linked or made too long is told so, and never replaced.
TEST_F(Page, LeavesFilesAloneThatItMustNotReplace) {
    const std::string file = dir / "BTRuleConfig", other = dir.write("other", "# elsewhere\n");
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"a rule text of more than 256 KB",
         [&] { dir.write("BTRuleConfig", std::string(kMostRulesText + 1, '#')); }},
        {"is read-only", [&] { ::chmod(dir.write("BTRuleConfig", "# mine\n").c_str(), 0444); }},
        {"is a link", [&] { EXPECT_EQ(::symlink(other.c_str(), file.c_str()), 0); }},
    };
    for (const auto& [fault, prepare] : rows) {
        std::remove(file.c_str());
        prepare();
        const std::string told = json(pageGet("/api/rules"));
        EXPECT_NE(told.find(R"("editable":false)"), std::string::npos) << told.substr(0, 300);
        EXPECT_NE(told.find(fault), std::string::npos) << told.substr(0, 300);
        const std::size_t digest = told.find(R"("digest":")") + 10;
        const std::string body = R"({"text":"","digest":")" + told.substr(digest, 16) + "\"}";
        EXPECT_EQ(ask(pagePost("/api/rules", body)).status, 423) << fault;
    }
    EXPECT_EQ(dir.read("other"), "# elsewhere\n");
}

TEST(PageJson, WritesWhateverTextsHold) {
    JsonText json;
    json.open('{').put("a\"",
                       "<\x01\\\n\t\xff\xc3\xa4\xe0\x80\x80\xed\xa0\x80\xf4\x90\x80\x80\xf0\x9f\x98\x80\xc3");
    json.key("b")
        .open('[')
        .item(1.5)
        .item(1e300 * 1e300)
        .item(0.25)
        .item(12.0)
        .item(std::int64_t{-3})
        .close();
    json.put("c", std::optional<int>()).put("d", false).key("e").open('[').close().close();
    EXPECT_EQ(json.take(),
              "{\"a\\\"\":\"<\\u0001\\\\\\n\\t?\xc3\xa4?????\?\?\?\?\?\xf0\x9f\x98\x80?\","
              "\"b\":[1.5,null,0.25,12,-3],\"c\":null,\"d\":false,\"e\":[]}");
}

}  // namespace
}  // namespace vx::collector
