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
        {"[::1", "", "", "/", false, 403},
        {"localhost:8080", "", "", "/../etc/passwd", false, 404},
        {"localhost", "", "", "/api/nothing", false, 404},
        {"localhost", "", "", "/api/status", false, 503},    // no picture yet
        {"localhost", "", "", "/api/overview", false, 503},  // no store
        {"localhost", "", kJson, "/", true, 405},
        {"localhost", "", kJson, "/api/transactions/7", true, 405},
        {"localhost", "", "application/jsonx", "/api/rules/try", true, 415},
        {"localhost", "http://evil.example", kJson, "/api/rules/try", true, 403},
        {"localhost", "null", kJson, "/api/rules/try", true, 403},
        {"localhost", "http://localhost", "application/json; charset=utf-8", "/api/rules/try", true, 400},
        {"localhost", "https://localhost", kJson, "/api/rules/try", true, 400},
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
    EXPECT_EQ(ask(pageGet("/style.css")).status, 200);  // the login page's own

    PageRequest bearer = pageGet("/");
    for (const char* wrong :
         {"Bearer ", "Bearer 0123456789abcdee", "Bearer 0123456789abcdef0", "0123456789abcdef"}) {
        bearer.authorization = wrong;
        EXPECT_EQ(ask(bearer).status, 303) << wrong;
    }
    bearer.authorization = std::string("Bearer ") + kToken;
    EXPECT_EQ(ask(bearer).status, 200);

    EXPECT_EQ(login("wrong").status, 401);
    const PageAnswer answer = login("%30123456789abcdef");
    EXPECT_EQ(answer.status, 303);
    EXPECT_NE(answer.setCookie.find("; HttpOnly; SameSite=Strict"), std::string::npos);
    EXPECT_EQ(answer.setCookie.find(kToken), std::string::npos);
    PageRequest browser = pageGet("/");
    browser.cookie = "a=b; " + answer.setCookie.substr(0, answer.setCookie.find(';'));
    EXPECT_EQ(ask(browser, kSessionSeconds - 1).status, 200);
    EXPECT_EQ(ask(browser, kSessionSeconds).status, 303);

    const PageAnswer again = login(kToken);
    browser.cookie = again.setCookie.substr(0, again.setCookie.find(';'));
    browser.post = true;
    browser.path = "/logout";
    EXPECT_EQ(ask(browser).location, "/login");
    browser.post = false;
    browser.path = "/";
    EXPECT_EQ(ask(browser).status, 303);
}

TEST_F(GuardedPage, KeepsSoManyLogins) {
    const std::string first = login(kToken).setCookie;
    PageRequest browser = pageGet("/");
    browser.cookie = first.substr(0, first.find(';'));
    for (std::size_t i = 1; i < kMostSessions; ++i) login(kToken);
    EXPECT_EQ(ask(browser).status, 200);
    login(kToken);
    EXPECT_EQ(ask(browser).status, 303);
}

TEST_F(Page, TokenFilesHoldAToken) {
    std::string token, error;
    EXPECT_TRUE(readToken(dir.write("good", "0123456789abcdef\nmore"), token, error));
    EXPECT_EQ(token, kToken);
    for (const char* bad : {"", "short\n", "0123456789 abcdef"}) {
        EXPECT_FALSE(readToken(dir.write("bad", bad), token, error));
        EXPECT_TRUE(token.empty());
        EXPECT_EQ(error.find("0123"), std::string::npos);
    }
    EXPECT_FALSE(readToken(dir / "none", token, error));
}

TEST_F(Page, TriesRules) {
    dir.write("BTRuleConfig", "7|Shop|2|1|/shop|0\n7|Cart|3|0|/shop/cart|0|1|x=1\n");
    EXPECT_EQ(
        json(pagePost("/api/rules/try", R"({"url":"/shop/cart?x=1","method":"GET"})")),
        R"({"bt":"Cart","btId":3,"deciding":"patterns","excluded":false,"line":2,"lines":[)"
        R"({"kind":"pattern rule","number":1,"outcome":"outdone","reason":"line 2 asks for more of the request",)"
        R"("text":"7|Shop|2|1|/shop|0"},)"
        R"({"kind":"pattern rule","number":2,"outcome":"names","reason":"takes the request",)"
        R"("text":"7|Cart|3|0|/shop/cart|0|1|x=1"}],"why":"line 2 names it \"Cart\""})");
    const std::string edited = json(pagePost(
        "/api/rules/try", R"({"url":"/a","headers":{"S":"e"},"text":"1|1|n|d|-|-|Request-Header|S|-"})"));
    EXPECT_NE(edited.find(R"("bt":"/a.e")"), std::string::npos) << edited;
    for (const char* bad :
         {"", "[]", "{\"url\":7}", "{\"url\":\"\"}", "{\"url\":\"/a\",\"headers\":{\"S\":1}}",
          "{\"url\":\"/a\",\"text\":\"a\\u0000b\"}", "{\"url\":\"/a\",\"url\":\"/b\"}"})
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
    EXPECT_EQ(ask(pagePost("/api/rules", R"({"text":""})")).status, 400);

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
    JsonText large;
    const std::string part(1 << 20, 'x');
    large.open('[');
    for (int i = 0; i < 17; ++i) large.item(part);
    EXPECT_TRUE(large.full());
}

TEST(PageParameters, ReadWholeNumbersInRange) {
    PageRequest request;
    request.arguments = formFields("a=5&b=5x&c=&d=99&e&%66=%2b+1");
    EXPECT_EQ(PageParameters(request).text("f"), "+ 1");
    const struct {
        const char* name;
        std::int64_t value;
        bool good;
    } rows[] = {{"a", 5, true},  {"b", 7, false}, {"c", 7, true},
                {"d", 7, false}, {"e", 7, true},  {"g", 7, true}};
    for (const auto& row : rows) {
        PageParameters given(request);
        EXPECT_EQ(given.number(row.name, 7, 0, 10), row.value) << row.name;
        EXPECT_EQ(given.fault().empty(), row.good) << row.name;
    }
}

}  // namespace
}  // namespace vx::collector
