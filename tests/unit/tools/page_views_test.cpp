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
        const std::string start = std::to_string(now - 1000 - kEpoch);
        for (const char* line : {"7,2,Cart", "7,3,<b>", "5,Shop.buy(a,b),7", "5,Shop.load,8",
                                 "5,HTTP_pay&#46;example,9", "5,DB_stock,10", "6,1,Via", "32,1,a.Gone",
                                 "33,1,Shop", "34,1,buy", "35,1,too late", "36,1,db", "12,1,1:<a&#46;b>"})
            take(line);
        take("2,1:55:3,1,5,x.1,2,/cart,now?id=7&x=\"\xff,corr,9,700000000000000000000,3,,0,-1,abc,def,01," +
             start);
        take("38,1,5,7,4,-1,-1,1,1,1,3,1,1,at%20a%7Cat%20b");
        take("3,1,7:5_0_0__8:5:1:/u_0_2__");
        take("7,2,Cart");  // told again: no new name
        take(
            "4,1F,500,13,9,40,2,0,,0,8:5_1_10_4___T3:9:9.750:1:-:12::::200_"
            "E4:10:1.000:10:6:22:500::::a_b_e4_7:5_1_30____");
        take("5,Shop.sell,7");  // from now on: not what the transaction meant
        for (const char* id : {"2", "3", "4", "5"}) {
            take("2," + std::string(id) + ",1,5,5.1,3,/b,,0,0,0,,0,-1,,,," + start);
            take("4," + std::string(id) + ",200,10,7,10,3,0,,0,");
        }
        store.intake().opened(StreamKind::kData, kStock, now);
        for (const std::string& line : {std::string("7,2,Stock"), std::string("5,DB_orders,9"),
                                        "2,9:1:3,1,5,5.1,2,/stock,,0,0,0,,0,-1,,,," + start,
                                        std::string("4,9,200,10,7,10,2,0,,0,E1:9:1.000:10:-:2:503:::_")})
            take(line, kStock);
        runs.storeIn(nullptr);
    }
    ~PageViews() override { apr_terminate(); }

    void take(const std::string& line, const Identity& from = kShop) {
        runs.line(StreamKind::kData, line, runs.of(from.text()));
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
        {R"("bt":"Cart","callouts":2,"category":"error")", R"("durationMs":40)", R"("number":"1")",
         R"("status":500,"url":"/cart,now?id=7&x=\"?")", R"("next":null)", R"("instance":"Web/host1/shop")"});
    const std::string id = idOf("bt=Cart"), callee = idOf("bt=Stock");
    expectParts("/api/transactions/" + callee, {("\"callees\":[],\"caller\":\"" + id + "\"").c_str(),
                                                R"("failed":true)", R"("status":503)"});
    expectParts("/api/transactions/" + id, {("\"callees\":[\"" + callee + "\"]").c_str()});
    expectParts(
        "/api/transactions/" + id,
        {R"("items":[{"atMs":0,"cpu":0,"depth":0,"durationMs":30,"kind":"method",)"
         R"x("name":"Shop.buy(a,b)","open":false,"parent":-1,"selfMs":19,"url":""},)x"
         R"({"atMs":2,"cpu":4,"depth":1,"durationMs":10,"kind":"method","name":"Shop.load",)"
         R"("open":false,"parent":0,"selfMs":0.25,"url":"/u"},)"
         R"({"atMs":2.25,"depth":2,"durationMs":9.75,"failed":false,"kind":"callout",)"
         R"("name":"HTTP_pay.example","parent":1,"query":"","seq":3,"status":200,"type":"HTTP"},)"
         R"({"atMs":21,"depth":1,"durationMs":1,"failed":true,"kind":"callout","name":"DB_stock",)"
         R"("parent":0,"query":"6 a","seq":4,"status":500,"type":"DB"},)"
         R"({"atMs":22,"depth":1,"kind":"exception","name":"a.Gone","parent":0,"seq":4}])",
         R"("callerSpan":"def","callouts":2)", R"("correlation":"corr","cpu":9)", R"("page":3)",
         R"("session":"700000000000000000000")", R"("traceId":"abc")",
         R"("thrown":[{"at":1388534405000,"cause":"db","class":"a.Gone","message":"too late",)"
         R"("seq":4,"stack":["at a","at b"],"throwingClass":"Shop","throwingMethod":"buy"}])",
         R"("requestHeaders":[{"name":"Via","value":"a.b"}])", R"("records":["12,1,)", R"("caller":null)"});
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
    const auto count = [&](const std::string& filters) {
        const std::string all = json("/api/transactions?count=1&" + span(from, from + 10'000) + filters);
        return std::atoi(all.substr(all.find("\"count\":") + 8).c_str());
    };
    EXPECT_EQ(count(""), 6);
    EXPECT_EQ(count("&max=10"), 5);
    const std::string callerIs = "&caller=", pay = "&backend=HTTP_pay.example";
    using Filters = std::vector<std::string>;
    for (const std::string& one :
         Filters{"&url=/cart", "&status=500", "&min=11", "&number=3", "&category=abnormal", pay,
                 pay + "&callMin=9", "&exception=a.Gone", "&backend=DB_orders&failed=1",
                 callerIs + std::to_string(instanceKey(kShop.text()))})
        EXPECT_EQ(count(one), 1) << one;
    for (const std::string& none : Filters{pay + "&failed=1", pay + "&callMin=10",
                                           callerIs + std::to_string(instanceKey(kStock.text()))})
        EXPECT_EQ(count(none), 0) << none;
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
