// The store in a real ClickHouse server, against the one in a file.
#include "tools/collector/store_clickhouse.h"

#include <apr_general.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>

#include "tests/support/click_house.h"
#include "tests/support/export_run.h"
#include "tests/support/page_fixture.h"
#include "tools/collector/collector_runs.h"
#include "tools/collector/page_api.h"
#include "tools/collector/store.h"

namespace vx::collector {
namespace {

constexpr std::int64_t kEpoch = 1'388'534'400'000;
constexpr const char* kShop = "Web/host1/shop";
constexpr const char* kStock = "Stock/host2/app/7";

class ClickHouseStore : public testing::Test {
protected:
    void SetUp() override {
        apr_initialize();
        if (!test::ClickHouse::isInstalled())
            GTEST_SKIP() << "no clickhouse-server: scripts/bootstrap installs it";
        ASSERT_TRUE(server.start());
    }
    void TearDown() override { apr_terminate(); }
    std::string count(const std::string& table) {
        HttpAddress address;
        EXPECT_TRUE(readAddress(server.url(), address));
        return postStatement(address, "", "", "SELECT count() FROM vx." + table).body;
    }
    // As they were when the line was no part of their order.
    void makeMonitorsOfBefore() {
        std::string create = clickHouseCreate(tableOf(kMonitors));
        create.erase(create.find(", line)"), 6);
        HttpAddress address;
        EXPECT_TRUE(readAddress(server.url(), address));
        postStatement(address, "CREATE DATABASE vx", "", "");
        EXPECT_EQ(postStatement(address, create, "&database=vx", "").status, 200);
    }
    test::ClickHouse server;
};

// A collector's store with the runs that feed it.
struct Side {
    Store store;
    Runs runs;
    StoreQuery query;

    void begin(std::int64_t now) {
        runs.storeIn(&store.intake());
        runs.turn(now);
    }
    void take(const std::string& line, const char* instance = kShop, StreamKind kind = StreamKind::kData) {
        runs.line(kind, line, runs.of(instance));
    }
    void connect(StreamKind kind, const Identity& identity, std::int64_t now) {
        runs.opened(kind, runs.of(identity.text()));
        store.intake().opened(kind, identity, now);
    }
};

// What lies between the marks, each; in order of itself.
std::multiset<std::string> partsOf(const std::string& text, const std::string& begin,
                                   const std::string& end) {
    std::multiset<std::string> out;
    for (std::size_t at = 0; (at = text.find(begin, at)) != std::string::npos;) {
        at += begin.size();
        out.insert(text.substr(at, text.find(end, at) - at));
    }
    return out;
}

// Two tiers with everything that has a table, and texts that would end a row.
void feedTwoTiers(Side& side, std::int64_t now) {
    for (const StreamKind kind : {StreamKind::kData, StreamKind::kAutoSensor})
        side.connect(kind, {"Web", "host1", "shop", ""}, now);
    side.connect(StreamKind::kData, {"Stock", "host2", "app", "7"}, now);
    for (const char* line : {"7,3,a\tb\\c'd\r", "7,2,Pay", "5,Shop.buy(a,b),7", "5,DB_orders,9", "6,1,Via",
                             "32,1,a.Timeout", "33,1,Cart", "34,1,show", "35,1,too late", "36,1,db"})
        side.take(line);
    side.take("7,2,Pay", kStock);
    for (int i = 1; i <= 300; ++i) {
        const std::string id = std::to_string(i), bt = std::to_string(2 + i % 2);
        const std::string start = std::to_string(now - 200'000 + i * 500 - kEpoch);
        if (i % 3) side.take("12," + id + ",1:<a&#46;b>");
        side.take("2," + id + ",1,5,5.1," + bt + ",/item/" + id + "?x=\t'\\\xFF\r" + ",,0,0,0,,0,-1,,,," +
                  start);
        if (i % 7 == 0) side.take("38," + id + ",100,7,0,-1,-1,1,1,1,3,1,1,at%20a%7Cat%20b");
        side.take("4," + id + ",200," + std::to_string(10 + i % 4) + ",7," + std::to_string(i) + "," + bt +
                  ",0,,0," + (i % 5 ? "7:5_0_0__T1:9:2.500:10:-:0::::200_7:5_1_9____" : ""));
        if (i % 10) continue;
        side.take("2,9" + id + ":" + id + ":3,1,5,x.1,2,/stock,,0,0,0,,0,-1,,,," + start, kStock);
        side.take("4,9" + id + ",200,13,0,20,2,0,,0,", kStock);
    }
    // Behind a quiet time, and called by a clock that is far off.
    side.take("2,400,1,5,5.1,2,/old,,0,0,0,,0,-1,,,," + std::to_string(now - 72'000'000 - kEpoch));
    side.take("4,400,200,10,7,5,2,0,,0,");
    side.take("2,401:400:3,1,5,x.1,2,/stock,,0,0,0,,0,-1,,,," + std::to_string(now - 60'000 - kEpoch),
              kStock);
    side.take("4,401,200,10,0,20,2,0,,0,", kStock);
    const std::string figures =
        "|0.1 40.0 40 40 1 0.0 0 40.0 40 40 1 0 500000 0 0 0 500000 0 0 0 500000 0 0 0 0 0.5 0 1 0 500000 0 "
        "1 0 500000 0 1 0 500000 0 1";
    side.take("74,3|7|2:Web_host1_shop_Pay" + figures, kShop, StreamKind::kAutoSensor);
    side.take("74,3|7|0:Web_host1_shop_AllTransactions" + figures, kShop, StreamKind::kAutoSensor);
    side.take("no record");
    side.take("10,");
    side.runs.closed(StreamKind::kAutoSensor, side.runs.of(kShop));
}

TEST_F(ClickHouseStore, AnswersThePageAsAFileDoes) {
    const std::int64_t now = epochNow() / 10'000 * 10'000;
    const test::TempDir dir;
    std::string error;
    Side file, engine;
    ASSERT_TRUE(file.store.openFile(dir / "db", {}, error)) << error;
    makeMonitorsOfBefore();
    ASSERT_TRUE(engine.store.openClickHouse(server.url(), 0, 0, error)) << error;
    for (Side* side : {&file, &engine}) {
        side->begin(now);
        feedTwoTiers(*side, now);
        side->store.finish();
        EXPECT_EQ(side->store.status().fault, "");
    }
    ASSERT_TRUE(file.query.openFile(dir / "db") && engine.query.openClickHouse(server.url(), 60'000));
    const StatusBoard board;
    PageGuard guard{"", {}};
    const std::string span = "from=" + std::to_string(now - 600'000) + "&to=" + std::to_string(now + 10'000);
    const auto answer = [&](Side& side, const PageRequest& request) {
        const PageRules rules("", [&](std::size_t most, std::vector<RequestRow>& out) {
            return side.query.requests(most, out) == Answered::kOk;
        });
        PageApi api({&board, &side.query, [] { return StoreStatus{}; }, &rules, &guard, {}});
        const PageAnswer told = api.answer(request, 0);
        EXPECT_EQ(told.status, 200) << request.path << told.body;
        return told.body;
    };
    const auto alike = [&](const std::string& path, const char* part) {
        const auto request = path.starts_with("{") ? test::pagePost("/api/rules/preview", path)
                                                   : test::pageGet("/api/" + path + span);
        const std::string wanted = answer(file, request);
        EXPECT_NE(wanted.find(part), std::string::npos) << path << "\n" << wanted;
        EXPECT_EQ(answer(engine, request), wanted) << path;
    };
    alike("overview?", R"("count":331,)");
    for (const char* kind : {"backend", "method", "exception"})
        alike("overview?step=60000&kind=" + std::string(kind) + "&", R"("spark":[)");
    alike("transactions?limit=1000&", R"("url":"/stock")");
    alike("transactions?category=abnormal&backend=DB_orders&min=10&max=100&url=/item/4&",
          R"("url":"/item/4)");
    alike("transactions?bt=a%09b%5Cc'd%0D&exception=a.Timeout&status=200&", R"("bt":"a\tb\\c'd\r")");
    alike("transactions?bt=Pay'%20OR%20'1'='1&", R"("rows":[])");
    for (const char* id : {"7", "10", "11"})  // an exception; a caller and its callee
        alike("transactions/" + std::string(id) + "?", R"("complete":true)");
    alike("backends?", R"("toKind":"instance")");
    alike("exceptions?", R"("lastText":"in show of Cart: too late, because of db")");
    alike("instances?", R"("name":"Stock/host2/app/7")");
    alike("links?step=60000&", R"("unreadable":1)");
    alike("monitors?", R"x("name":"(all)","monitor":{"count":1,)x");
    alike("reports?name=Pay&", R"("line":"74,)");
    alike(R"({"text": "7|Cart|2|0|/item|1\n"})", R"("looked":332)");

    // The export: whole tables in another order.
    const auto both = [&](const std::vector<std::string>& words) {
        std::vector<std::string> ofFile = words, ofServer = words;
        ofFile.insert(ofFile.end(), {"--db", dir / "db"});
        ofServer.insert(ofServer.end(), {"--clickhouse", server.url()});
        return std::pair(test::exported(ofFile), test::exported(ofServer));
    };
    for (int id = 0; id < kTables; ++id) {
        const char* table = tableOf(static_cast<TableId>(id)).name;
        const auto [wanted, told] = both({"--format", "csv", "--table", table});
        EXPECT_EQ(told.code, 0) << told.fault;
        EXPECT_GT(partsOf(wanted.text, "\n", "\r").size(), 1U) << table;
        EXPECT_EQ(partsOf(told.text, "\n", "\r"), partsOf(wanted.text, "\n", "\r")) << table;
    }
    const auto [wanted, told] = both({"--format", "otlp-json", "--from", std::to_string(now - 150'000)});
    const auto spans = partsOf(wanted.text, "{\"traceId\":", ",\"attributes\":");
    EXPECT_GT(spans.size(), 300U);
    EXPECT_EQ(partsOf(told.text, "{\"traceId\":", ",\"attributes\":"), spans);
    const test::Exported nowhere = test::exported({"--format", "csv", "--clickhouse", server.url() + "2"});
    EXPECT_TRUE(nowhere.code == 1 && nowhere.fault.find("vx2") != std::string::npos) << nowhere.fault;
    server.stop();
    const test::Exported gone = both({"--format", "otlp-json"}).second;
    EXPECT_TRUE(gone.code == 1 && gone.fault.find("refused") != std::string::npos) << gone.fault;
}

TEST_F(ClickHouseStore, TakesSeveralCollectorsAndWaitsForAServerThatIsGone) {
    std::string error;
    Side sides[2];
    const auto feed = [&](int collector, int first, int count) {
        const std::string name = "Web/host/app" + std::to_string(collector);
        for (int i = first; i < first + count; ++i)
            sides[collector].take("4," + std::to_string(i) + ",200,10,0,7,1,0,,0,", name.c_str());
        sides[collector].store.intake().flush(epochNow() + 60'000, true);
    };
    const auto written = [&](std::uint64_t wanted) {
        return test::eventually(
            [&] { return sides[0].store.status().written + sides[1].store.status().written == wanted; }, 60);
    };
    for (int at = 0; at < 2; ++at) {
        ASSERT_TRUE(sides[at].store.openClickHouse(server.url(), at + 1, 7, error)) << error;
        sides[at].begin(epochNow());
        sides[at].take("7,2,told to " + std::to_string(at + 1), "Web/host/both");
        feed(at, 1, 1000);
    }
    ASSERT_TRUE(written(2000));
    server.stop();
    feed(0, 1001, 1000);
    ASSERT_TRUE(test::eventually([&] { return !sides[0].store.status().fault.empty(); }));
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(written(3000));
    EXPECT_EQ(sides[0].store.status().fault, "");
    EXPECT_EQ(sides[0].store.status().dropped, 0U);
    StoreQuery query;
    ASSERT_TRUE(query.openClickHouse(server.url(), 60'000)) << query.error();
    std::vector<TransactionRow> rows;
    std::set<std::int64_t> ids;
    TransactionsQuery all;
    all.limit = kMostRows;
    ASSERT_EQ(query.transactions(all, rows), Answered::kOk) << query.error();
    for (const TransactionRow& row : rows) ids.insert(row.id);
    EXPECT_EQ(ids.size(), 3000U);
    EXPECT_LT(*ids.rbegin(), std::int64_t{1} << 53);
    for (const std::int64_t collector : {1, 2}) {
        std::vector<StoredName> names;
        ASSERT_EQ(query.names(100, collector << kCollectorShift, names), Answered::kOk) << query.error();
        ASSERT_EQ(names.size(), 1U);
        EXPECT_EQ(names[0].name, "told to " + std::to_string(collector)) << "its own before others'";
    }
}

TEST_F(ClickHouseStore, GivesDaysUpButNoIdTwiceAndLeavesWhatTheServerCannotRead) {
    const std::int64_t now = epochNow(), old = now - 3 * 86'400'000LL;
    HttpAddress address;
    ASSERT_TRUE(readAddress(server.url(), address));
    std::string error;
    ClickHouseSink sink;
    ASSERT_TRUE(sink.open(address, 3, 2, error)) << error;
    const std::int64_t first = sink.nextId();
    const auto batchOf = [](std::int64_t instance, std::int64_t at, std::int64_t id) {
        Batch batch;
        TransactionRow& row = batch.transactions.emplace_back().row;
        row.id = id;
        row.instance = batch.instances.emplace_back().instance = instance;
        row.at = batch.instances.back().lastAt = at;
        batch.names.push_back({instance, 7, 2, id, "Pay"});
        return batch;
    };
    const auto write = [&](const Batch& batch) {
        EXPECT_EQ(sink.write({&batch, 1}, error), StoreSink::Wrote::kDone) << error;
    };
    write(batchOf(1, old, first));
    postStatement(
        address, "", "",
        "CREATE TABLE vx.bills(day Date) ENGINE = MergeTree PARTITION BY toYYYYMMDD(day) ORDER BY day");
    postStatement(address, "", "", "INSERT INTO vx.bills VALUES ('2019-05-01')");
    Batch young = batchOf(2, now, first + 1);
    young.instances[0].lastAt = now + 9 * 86'400'000LL;
    write(young);
    EXPECT_EQ(sink.holds().oldestAt, old - old % 86'400'000);
    EXPECT_FALSE(sink.retain(now, error));
    EXPECT_EQ(error, "");
    EXPECT_EQ(count("transactions") + count("instances"), "1\n1\n");
    EXPECT_EQ(count("bills"), "1\n") << "tables of others are left alone";
    EXPECT_TRUE(test::eventually([&] { return count("names") == "1\n"; })) << "names go with their instance";
    EXPECT_FALSE(sink.retain(now + 4 * 86'400'000LL, error));
    EXPECT_EQ(count("transactions"), "0\n");
    ClickHouseSink again;
    ASSERT_TRUE(again.open(address, 3, 2, error)) << error;
    EXPECT_GT(again.nextId(), first + 1) << "names still tell of the last id";

    HttpAddress other = address;
    other.database = "other";
    postStatement(address, "", "", "CREATE DATABASE other");
    postStatement(address, "", "", "CREATE TABLE other.names(name String) ENGINE = Log");
    EXPECT_FALSE(ClickHouseSink().open(other, 3, 2, error)) << "a table of somebody else is not taken over";

    postStatement(address, "", "", "ALTER TABLE vx.exceptions MODIFY COLUMN class Int64");
    Batch batch = batchOf(2, now, first + 5);
    batch.exceptions.emplace_back().name = "a.Timeout";
    write(batch);
    EXPECT_NE(error, "") << "what was left is told";
    EXPECT_EQ(count("transactions") + count("exceptions"), "1\n0\n") << "and holds nothing else up";

    Batch others;
    others.names.push_back({2, 7, 2, std::int64_t{9} << kCollectorShift, "Other"});
    write(others);
    StoreQuery query;
    std::vector<StoredName> names;
    ASSERT_TRUE(query.openClickHouse(server.url(), 60'000)) << query.error();
    ASSERT_EQ(query.names(10, first, names), Answered::kOk) << query.error();
    EXPECT_TRUE(names.size() == 1 && names[0].name == "Pay")
        << "what another collector was told comes behind";
}

TEST(ClickHouseAddress, IsRefusedWhereItIsNone) {
    HttpAddress address;
    for (const char* url :
         {"", "http://", "https://a", "http://a:b", "http://a/b;c", "http://a:1/x'", "http://[::1"})
        EXPECT_FALSE(readAddress(url, address)) << url;
    ASSERT_TRUE(readAddress("http://vx:p@ss:w@[::1]:8124/vx", address));
    EXPECT_TRUE(address.host == "::1" && address.port == "8124" && address.credentials == "vx:p@ss:w");
    ASSERT_TRUE(readAddress("http://[fe80::1]", address));
    EXPECT_TRUE(address.host == "fe80::1" && address.port == "8123");
}

}  // namespace
}  // namespace vx::collector
