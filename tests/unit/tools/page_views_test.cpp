// The data behind the page, from records to JSON.
#include "tools/collector/page_views.h"

#include <apr_general.h>
#include <gtest/gtest.h>

#include <memory>

#include "commonlibc/vxlb_clock.h"
#include "tests/support/page_fixture.h"
#include "tests/support/temp_dir.h"
#include "tools/collector/collector_runs.h"
#include "tools/collector/store.h"

namespace vx::collector {
namespace {

constexpr std::int64_t kEpoch = 1'388'534'400'000;
const Identity kShop{"Web", "host1", "shop", ""}, kStock{"Stock", "host2", "shop", ""};

// A transaction with everything and one that it called, and some plain ones.
class PageViews : public testing::Test {
protected:
    PageViews() {
        apr_initialize();
        Store store;
        std::string error;
        EXPECT_TRUE(store.openFile(dir / "db", {}, error)) << error;
        runs.storeIn(&store.intake());
        runs.turn(now);
        store.intake().opened(StreamKind::kData, kShop, now);
        for (const char* line : {"7,2,Cart", "7,3,<b>", "5,Shop.buy,7", "5,HTTP_pay&#46;example,9", "6,1,Via",
                                 "32,1,a.Gone", "33,1,Shop", "34,1,buy", "35,1,too late", "36,1,db"})
            take(line);
        transaction(1, 2, 13, 40, 500, "7:5_0_0__T1:9:4.125:1:-:9::::200_e2_7:5_1_12____",
                    "/cart?id=7&x=\"\xff");
        take("12,1,1:<a>");
        for (int i = 2; i <= 5; ++i) transaction(i, 3, 10, 10, 200, "", "/b");
        store.intake().opened(StreamKind::kData, kStock, now);
        for (const std::string& line :
             {std::string("7,2,Stock"), std::string("5,DB_orders,9"),
              "2,9:1:3,1,5,5.1,2,/stock,,0,0,0,,0,-1,,,," + std::to_string(now - 1000 - kEpoch),
              std::string("4,9,200,10,7,10,2,0,,0,E1:9:1.000:10:-:2:503:::_")})
            take(line, kStock);
        runs.storeIn(nullptr);
    }
    ~PageViews() override { apr_terminate(); }

    void take(const std::string& line, const Identity& from = kShop) {
        runs.line(StreamKind::kData, line, runs.of(from.text()));
    }
    void transaction(int number, int bt, int category, int duration, int status, const std::string& items,
                     const std::string& url) {
        const std::string id = std::to_string(number);
        take("2," + id + ",1,5,5.1," + std::to_string(bt) + "," + url + ",,0,0,0,,0,-1,,,," +
             std::to_string(now - 1000 - kEpoch));
        if (number == 1) take("38,1,5,7,2,-1,-1,1,1,1,3,1,1,at%20a%7Cat%20b");
        if (number == 1) take("12,1,1:<a>");
        take("4," + id + "," + std::to_string(status) + "," + std::to_string(category) + ",7," +
             std::to_string(duration) + "," + std::to_string(bt) + ",0,,0," + items);
    }
    PageAnswer ask(const std::string& path) {
        if (!query) {
            query = std::make_unique<StoreQuery>();
            EXPECT_TRUE(query->openFile(dir / "db")) << query->error();
        }
        PageApi api({&board, query.get(), [] { return StoreStatus{}; }, &rules, &guard, {}});
        return api.answer(test::pageGet(path), 0);
    }
    std::string json(const std::string& path) { return test::compactJson(ask(path).body); }
    void expectParts(const std::string& path, std::initializer_list<const char*> parts) {
        const std::string told = json(path);
        for (const char* part : parts) EXPECT_NE(told.find(part), std::string::npos) << part << "\n" << told;
    }

    // Of the one transaction that the filters let pass.
    std::string idOf(const std::string& filters) {
        const std::string row = json("/api/transactions?" + filters);
        const std::size_t from = row.find("\"id\":\"") + 6;
        return row.substr(from, row.find('"', from) - from);
    }

    test::TempDir dir;
    const std::int64_t now = vxlb_now_ms() / 10'000 * 10'000 - 5'000;  // amidst an interval
    Runs runs;
    std::unique_ptr<StoreQuery> query;
    StatusBoard board;
    PageRules rules{""};
    PageGuard guard{"", {}};
};

TEST_F(PageViews, TellWhatIsStored) {
    expectParts("/api/overview",
                {R"("all":{"averageMs":15,"count":6,"error":1,"maxMs":40,"minMs":10,"normal":5)",
                 R"("complete":true)", R"("name":"<b>")", R"("name":"Cart","normal":0)"});
    expectParts(
        "/api/transactions?bt=Cart",
        {R"("bt":"Cart","callouts":1,"category":"error")", R"("durationMs":40)", R"("number":"1")",
         R"("status":500,"url":"/cart?id=7&x=\"?")", R"("next":null)", R"("instance":"Web/host1/shop")"});
    const std::string id = idOf("bt=Cart"), callee = idOf("bt=Stock");
    expectParts("/api/transactions/" + callee, {("\"callees\":[],\"caller\":\"" + id + "\"").c_str(),
                                                R"("failed":true)", R"("status":503)"});
    expectParts("/api/transactions/" + id, {("\"callees\":[\"" + callee + "\"]").c_str()});
    expectParts(
        "/api/transactions/" + id,
        {R"("cpu":0,"depth":0,"durationMs":12,"kind":"method","name":"Shop.buy","open":false,"parent":-1,)"
         R"("selfMs":7.875)",
         R"({"atMs":4.875,"depth":1,"durationMs":4.125,"failed":false,"kind":"callout","name":"HTTP_pay.example",)"
         R"("parent":0)",
         R"("kind":"exception","name":"a.Gone","parent":0,"seq":2)",
         R"("thrown":[{"at":1388534405000,"cause":"db","class":"a.Gone","message":"too late","seq":2,)"
         R"("stack":["at a","at b"],"throwingClass":"Shop","throwingMethod":"buy"}])",
         R"("requestHeaders":[{"name":"Via","value":"a"}])", R"("records":["2,1,1,5,)", R"("caller":null)"});
    expectParts("/api/backends", {R"("backend":"HTTP_pay.example","calls":1)", R"("from":"Web/host1/shop")",
                                  R"("to":"HTTP_pay.example","toKind":"backend")"});
    expectParts("/api/exceptions", {R"("class":"a.Gone","count":1)", R"("lastStack":["at a","at b"])",
                                    ("\"lastTransaction\":\"" + id + "\"").c_str()});
}

// Each page of the list begins where the one before has ended.
TEST_F(PageViews, ListsGoOnWhereTheyWereCut) {
    std::string before, numbers;
    for (int i = 0; i < 6; ++i) {
        const std::string told = json("/api/transactions?limit=1" + before);
        const std::size_t at = told.find("\"number\":\"");
        numbers += told.substr(at + 10, 1);
        const std::size_t next = told.find("\"next\":\"");
        ASSERT_NE(next, std::string::npos) << told;
        before = "&before=" + told.substr(next + 8, told.find('"', next + 8) - next - 8);
    }
    EXPECT_NE(json("/api/transactions?limit=1" + before).find("\"next\":null,\"rows\":[]"),
              std::string::npos);
    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(numbers, "123459");
}

// What a figure counts is what its filters lead to, over the span that the answer tells.
TEST_F(PageViews, FiguresLeadToTheirTransactions) {
    const std::int64_t end = now - 1000 + 10;
    const auto span = [](std::int64_t from, std::int64_t to) {
        return "from=" + std::to_string(from) + "&to=" + std::to_string(to);
    };
    // All ends lie within an interval: a part of it is answered as the whole.
    const std::string told = json("/api/overview?" + span(end - 1, end));
    const std::int64_t from = end / 10'000 * 10'000;
    EXPECT_NE(told.find("\"from\":" + std::to_string(from) + ","), std::string::npos) << told;
    EXPECT_NE(told.find(R"("count":6,)"), std::string::npos) << told;
    const struct {
        std::string filters;
        int count;
    } rows[] = {{"", 6},
                {"&url=/cart", 1},
                {"&status=500", 1},
                {"&min=11", 1},
                {"&max=10", 5},
                {"&number=3", 1},
                {"&category=abnormal", 1},
                {"&backend=HTTP_pay.example", 1},
                {"&backend=HTTP_pay.example&failed=1", 0},
                {"&backend=HTTP_pay.example&callMin=4", 1},
                {"&backend=HTTP_pay.example&callMin=5", 0},
                {"&exception=a.Gone", 1},
                {"&backend=DB_orders&failed=1", 1},
                {"&caller=" + std::to_string(instanceKey(kShop.text())), 1},
                {"&caller=" + std::to_string(instanceKey(kStock.text())), 0}};
    for (const auto& row : rows)
        EXPECT_NE(json("/api/transactions?count=1&" + span(from, from + 10'000) + row.filters)
                      .find("\"count\":" + std::to_string(row.count) + ","),
                  std::string::npos)
            << row.filters;
}

TEST_F(PageViews, RefuseWhatCannotBeAsked) {
    for (const char* bad :
         {"overview?from=x", "overview?from=2&to=1", "overview?kind=x", "overview?instance=9007199254740992",
          "transactions?category=bad", "transactions?limit=1001", "transactions?before=1:2x",
          "transactions?failed=1", "transactions?min=99999999999999999999"})
        EXPECT_EQ(ask(std::string("/api/") + bad).status, 400) << bad;
    for (const char* missing : {"0", "", "1x", "999999", "99999999999999999999"})
        EXPECT_EQ(ask(std::string("/api/transactions/") + missing).status, 404) << missing;
}

}  // namespace
}  // namespace vx::collector
