#include "tools/collector/store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <sstream>
#include <utility>

#include "tests/support/export_run.h"
#include "tests/support/fake_clock.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"
#include "tools/collector/collector_runs.h"
#include "tools/collector/store_pager.h"
#include "tools/collector/store_query.h"
#include "tools/collector/store_sums.h"

namespace vx::collector {
namespace {

using test::exported;
using test::TempDir;

constexpr std::int64_t kEpoch = 1'388'534'400'000;
const Identity kShop{"Web", "host1", "shop", ""};

// The first column of what a statement answers.
std::string execute(const std::string& path, const std::string& sql) {
    sqlite3* database = nullptr;
    std::string out;
    sqlite3_open(path.c_str(), &database);
    const auto take = [](void* text, int, char** values, char**) {
        static_cast<std::string*>(text)->append(values[0] ? values[0] : "null").append("\n");
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), take, &out, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
    return out;
}
// A store with the runs that feed it, on a clock that stands still.
class StoreTest : public testing::Test {
protected:
    void open(const Retention& retention = {}) {
        store = std::make_unique<Store>();
        std::string error;
        ASSERT_TRUE(store->openFile(file, retention, error)) << error;
        runs.storeIn(&store->intake());
        runs.turn(now);
        store->intake().opened(StreamKind::kData, kShop, now);
    }
    void take(const std::string& line, const Identity& identity = kShop) {
        runs.line(StreamKind::kData, line, runs.of(identity.text()));
    }
    // A transaction that began `ago` milliseconds before now.
    void transaction(std::int64_t number, std::int64_t ago, std::int64_t duration, int category = 10,
                     const std::string& items = "", const std::string& url = "/shop") {
        const std::string id = std::to_string(number);
        take("2," + id + ",1,5,5.1,2," + url + ",,0,0,0,,0,-1,,,," + std::to_string(now - ago - kEpoch));
        take("4," + id + ",200," + std::to_string(category) + ",7," + std::to_string(duration) + ",2,0,,0," +
             items);
    }
    // Ends the store, so that all is written, and opens the questions.
    void close() {
        runs.storeIn(nullptr);
        store.reset();
        ASSERT_TRUE(query.openFile(file)) << query.error();
    }
    SumsQuery lastMinutes(Monitored kind = Monitored::kBt) const {
        SumsQuery asked;
        asked.kind = kind;
        asked.span = {now - 300'000, now + 10'000};
        return asked;
    }

    TempDir dir;
    const std::string file = dir / "store.db";
    const std::int64_t now = epochNow();
    Runs runs;
    std::unique_ptr<Store> store;
    StoreQuery query;
};

TEST(StoreSchema, IsWhatItsDocumentSays) {
    std::string columns;
    for (int id = 0; id < kTables; ++id) {
        const Table& table = tableOf(static_cast<TableId>(id));
        columns += table.name;
        for (const Column& column : table.columns) columns.append(" ").append(column.name);
        columns += " ";
    }
    const std::string page = test::fileText(VX_SOURCE_DIR "/docs/collector.md");
    const std::size_t begin = page.find("    transactions  id");
    std::istringstream words(page.substr(begin, page.find("\n\n", begin) - begin));
    std::string told;
    for (std::string word; words >> word;) told += word + " ";
    EXPECT_EQ(told, columns);
}

TEST(StoreSums, PercentilesAreWithinTwoPercent) {
    for (std::int64_t ms = 0; ms < 5'000'000; ms += 1 + ms / 100) {
        const double middle = bucketMiddle(bucketOf(ms));
        ASSERT_NEAR(middle, static_cast<double>(ms), ms < 64 ? 0 : static_cast<double>(ms) * 0.02) << ms;
    }
    EXPECT_GT(bucketMiddle(bucketOf(kMostMs)), 9.8e10);
    EXPECT_EQ(percentileOf({{10, 95}, {50, 5}}, 95), 10);
    EXPECT_EQ(percentileOf({{10, 94}, {50, 6}}, 95), 50);
}

TEST(StoreIntake, GoesOnAfterAnOutageInWhichMoreAddedUpThanTheQueueTakes) {
    StoreQueue queue;
    Batch full;
    full.bytes = kMostQueued;
    queue.put(std::move(full));
    StoreIntake intake(queue, 1);
    InstanceState instance;
    instance.name = kShop.text();
    instance.bts[2] = std::string(200'000, 'x');
    for (int i = 0; i < 400; ++i) {  // a bucket each
        const std::string duration = std::to_string((32 + i % 32) << i / 32);
        intake.line(StreamKind::kData, "4,1,200,10,0," + duration + ",2,0,,0,", instance, '_', 0);
    }
    intake.flush(1000);
    EXPECT_GT(intake.lostSums(), 0U);
    queue.done(queue.take({}));
    intake.flush(2000);
    EXPECT_GT(queue.bytes(), 0U);
}

// Its first try takes long and fails, and meanwhile the end begins.
struct SinkOfTheEnd : StoreSink {
    explicit SinkOfTheEnd(StoreQueue& ending) : queue(ending) {}
    Wrote write(std::span<const Batch>, std::string&) override {
        if (!tries) clock.advanceMs(2 * kLastTime.count());
        queue.close();
        return tries++ ? Wrote::kDone : Wrote::kLater;
    }
    bool retain(std::int64_t, std::string&) override { return false; }
    Holds holds() override { return {}; }
    StoreQueue& queue;
    test::FakeClock clock;
    int tries = 0;
};

TEST(StoreWriter, TriesAgainAtTheEndAfterAWhile) {
    StoreQueue queue;
    Batch batch;
    batch.transactions.emplace_back();
    batch.bytes = 1;
    queue.put(std::move(batch));
    const auto begin = std::chrono::steady_clock::now();
    StoreWriter writer(queue, std::make_unique<SinkOfTheEnd>(queue));
    ASSERT_TRUE(test::eventually([&] { return queue.closed(); }));
    writer.finish();
    EXPECT_TRUE(writer.status().transactions == 1 && writer.status().lost == 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, kRetryMs);
}

TEST_F(StoreTest, SumsAgreeWithWhatWasSent) {
    open();
    take("7,2,Pay");
    Figures sent;
    for (int i = 0; i < 500; ++i) {
        const int category = 10 + i % 4;
        transaction(1000 + i, 1000 + i * 400, i, category);
        sent.add(oneOf(i, category));
    }
    take("4,5000,-99,10,0,40,2,0,,0,");
    for (const char* host : {"host1", "host2"})  // figures beyond all reason
        for (const char* line :
             {"61,3|4|6:Web_host1_shop_m|1 1 9e15 1 1 9e15", "61,3|4|6:a_b_c_n|1 1 nan 1 1 1"})
            runs.line(StreamKind::kAutoSensor, line, runs.of(Identity{"Web", host, "shop", ""}.text()));
    for (int i = 1; i <= 501; ++i)
        runs.line(StreamKind::kAutoSensor,
                  "63,3|4|" + std::to_string(i) + ":a_b_c_x" + std::to_string(i) + "|1 0.0 ",
                  runs.of(kShop.text()));
    close();
    std::vector<MonitorRow> told;
    EXPECT_EQ(query.monitors(lastMinutes(Monitored::kException), told), Answered::kCut);
    EXPECT_EQ(told.size(), 500U) << "one more than is told";
    ASSERT_EQ(query.monitors(lastMinutes(Monitored::kMethod), told), Answered::kOk) << query.error();
    ASSERT_EQ(told.size(), 1U) << "what is no number is no report";
    EXPECT_TRUE(told[0].monitor.totalMs == 18'000'000'000'000'000 &&
                told[0].monitor.count == 2'000'000'000'000);
    Sums sums;
    ASSERT_EQ(query.sums(lastMinutes(), sums), Answered::kOk) << query.error();
    ASSERT_EQ(sums.rows.size(), 1U);
    EXPECT_TRUE(sums.all == sent && sums.rows[0].figures == sent && sums.rows[0].discarded == 1);
    EXPECT_NEAR(sums.p95Ms, 474, 10);
    Figures bySteps;
    for (const Figures& step : sums.steps) bySteps.add(step);
    EXPECT_TRUE(bySteps == sent);
    SumsQuery longSteps = lastMinutes();
    longSteps.stepMs = kLongSumStep;
    ASSERT_EQ(query.sums(longSteps, sums), Answered::kOk);
    EXPECT_TRUE(sums.all == sent && sums.steps.size() <= 2) << "both steps say the same";
}

TEST_F(StoreTest, KeepsWhatIsYoungAndFits) {
    open({1, 0});
    take("7,2,Pay");
    for (int i = 0; i < 10; ++i) transaction(i + 1, i * 9'000'000, 5);  // two and a half hours each
    close();
    open({1.0 / 4, 0});
    ASSERT_TRUE(test::eventually([&] {
        std::vector<TransactionRow> rows;
        return query.transactions({}, rows) == Answered::kOk && rows.size() == 3;
    }));
    for (int i = 0; i < 20'000; ++i)
        transaction(100 + i, i < 19'999 ? 10 : 5, 5, 10, "", "/" + std::string(300, 'x'));
    close();
    EXPECT_NE(exported({"--db", file, "--format", "csv", "--from", std::to_string(now)}).text.find("/xxx"),
              std::string::npos)
        << "behind pages of what is older";
    open({0, 4});
    ASSERT_TRUE(test::eventually([&] {
        const std::int64_t bytes = store->status().bytes;
        return bytes > 0 && bytes < 6 * 1024 * 1024;
    }));
    close();
    std::vector<TransactionRow> rows;
    TransactionsQuery all;
    all.limit = kMostRows;
    ASSERT_EQ(query.transactions(all, rows), Answered::kOk);
    EXPECT_GT(rows.size(), 1000U);
    EXPECT_EQ(rows.at(0).flowpath, 100 + 19'999) << "the youngest stay";
}

TEST_F(StoreTest, RemembersNamesThatAnInstanceWhichGoesOnDoesNotTellAgain) {
    open();
    for (const char* line : {"7,2,Pay", "5,DB_orders,9", "5,DB_stock,9"}) take(line);
    close();
    runs = Runs();
    open();
    take("5,DB_stock,9");
    transaction(1, 1000, 40, 10, "T1:9:2.500:10:-:0::::200_");
    close();
    Backends backends;
    ASSERT_EQ(query.backends(lastMinutes().span, backends), Answered::kOk) << query.error();
    EXPECT_EQ(backends.rows.at(0).name, "DB_stock");
    std::vector<StoredName> names;
    ASSERT_EQ(query.names(100, 1, names), Answered::kOk);
    EXPECT_EQ(names.size(), 2U) << "the former name of an id is not in force";
}

TEST_F(StoreTest, CountsWhatFindsNoRoomOnAFullDiskAndGoesOnAfterwards) {
    constexpr std::int64_t kSent = 40'000;
    open();
    take("7,2,Pay");
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    const rlim_t most = std::exchange(limit.rlim_cur, 1024 * 1024);
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const std::string url = "/" + std::string(2500, 'x');
    for (int i = 0; i < kSent; ++i) transaction(1 + i, 1000, 5, 10, "", url);
    ASSERT_TRUE(test::eventually([&] { return !store->status().fault.empty(); }));
    EXPECT_LE(store->status().queuedBytes, kMostQueued + kLargeBatch);
    limit.rlim_cur = most;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ASSERT_TRUE(test::eventually([&] { return store->status().fault.empty(); }));
    store->finish();
    const auto dropped = static_cast<std::int64_t>(store->status().dropped);
    EXPECT_GT(dropped, 0);
    EXPECT_EQ(static_cast<std::int64_t>(store->status().written) + dropped, kSent);
    close();
    Sums sums;
    ASSERT_EQ(query.sums(lastMinutes(), sums), Answered::kOk);
    EXPECT_EQ(sums.all.count, static_cast<std::uint64_t>(kSent)) << "sums know of all";
    std::int64_t told = 0;
    std::vector<LinkRow> links;
    ASSERT_EQ(query.links({}, 0, kSumStep, links), Answered::kOk);
    for (const LinkRow& link : links) told += link.dropped;
    EXPECT_EQ(told, dropped);
}

TEST_F(StoreTest, RefusesFilesThatAreNotItsOwnAndLeavesThemAlone) {
    const std::string text(5000, 'x');
    dir.write("text", text);
    execute(dir / "other", "CREATE TABLE a(b)");
    execute(dir / "later", "PRAGMA application_id = 1448628306; PRAGMA user_version = 3; CREATE TABLE a(b)");
    open();
    const struct {
        std::string path;
        const char* why;
        bool canBeRead;
    } rows[] = {{dir / "text", "file is not a database", false},
                {dir / "other", "a database of another program", false},
                {dir / "later", "written by a newer vxcollector", false},
                {dir / "no/where", "No such file", false},
                {dir / ".", "Is a directory", false},
                {file, "another vxcollector writes it", true}};
    for (const auto& row : rows) {
        std::string error;
        EXPECT_FALSE(SqliteSink().open(row.path, {}, error));
        EXPECT_NE(error.find(row.why), std::string::npos) << error;
        EXPECT_EQ(query.openFile(row.path), row.canBeRead) << row.path;
    }
    EXPECT_EQ(dir.read("text"), text);
}

// As the program of before made it: one row for all lines of a BT and interval.
constexpr const char* kVersion1 =
    "CREATE TABLE old AS SELECT * FROM monitors; DROP TABLE monitors; CREATE TABLE monitors(at INTEGER NOT "
    "NULL, "
    "instance INTEGER NOT NULL, kind INTEGER NOT NULL, name TEXT NOT NULL, count INTEGER NOT NULL, normal "
    "INTEGER "
    "NOT NULL, slow INTEGER NOT NULL, very_slow INTEGER NOT NULL, error INTEGER NOT NULL, total INTEGER NOT "
    "NULL, "
    "least INTEGER NOT NULL, most INTEGER NOT NULL, line TEXT NOT NULL, PRIMARY KEY(at, instance, kind, "
    "name)) "
    "WITHOUT ROWID; INSERT INTO monitors SELECT * FROM old LIMIT 1; DROP TABLE old; PRAGMA user_version = 1; "
    "UPDATE meta SET value = 1 WHERE name = 'version'";
constexpr const char* kMonitorsOf = "SELECT sql FROM sqlite_master WHERE name = 'monitors'";

TEST_F(StoreTest, BringsAFileOfTheFormerVersionUpAndKeepsTaggedLinesOfOneBtApart) {
    const auto tell = [&] {
        for (const char* tags : {"a=1", "a=2", "a=2"})
            runs.line(StreamKind::kAutoSensor,
                      std::string("74,3|7|5:Web_host1_shop_Pay|") + tags +
                          "|0.1 40.0 40 40 1 0.0 0 40.0 40 40 1 0 500000 0 0 0 500000 0 0 0 500000 0 0 0 0 "
                          "0.5 0 1 0 "
                          "500000 0 1 0 500000 0 1 0 500000 0 1",
                      runs.of(kShop.text()));
    };
    open();
    tell();
    transaction(1, 1000, 5);
    close();
    const std::string made = execute(file, kMonitorsOf);
    execute(file, kVersion1);
    EXPECT_TRUE(query.openFile(file)) << "it can be read as it is: " << query.error();
    EXPECT_NE(exported({"--db", file, "--format", "csv", "--table", "monitors"}).text.find(",Pay,"),
              std::string::npos);
    open();
    EXPECT_EQ(execute(file, kMonitorsOf), made);
    EXPECT_EQ(execute(file,
                      "PRAGMA user_version; SELECT value FROM meta WHERE name = 'version'; "
                      "SELECT count(*) FROM monitors; SELECT count(*) FROM transactions"),
              "2\n2\n1\n1\n");
    runs.turn(now + 10'000);
    tell();
    close();
    std::vector<MonitorRow> told;
    SumsQuery asked = lastMinutes();
    asked.span.to += 10'000;
    ASSERT_EQ(query.monitors(asked, told), Answered::kOk) << query.error();
    ASSERT_EQ(told.size(), 1U);
    EXPECT_TRUE(told[0].monitor.count == 4 && told[0].monitor.totalMs == 160) << told[0].monitor.count;
    std::vector<ReportRow> lines;
    ASSERT_EQ(query.reports(asked, "Pay", lines), Answered::kOk);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_TRUE(lines[0].line.find("a=1") < 99 && lines[0].count == 1 && lines[1].count == 2);
}

TEST_F(StoreTest, SumsBeyondAllReasonStayAtTheirGreatest) {
    Batch batch;
    StoreSums sums;
    for (const Monitored kind : {Monitored::kBt, Monitored::kBackend})
        for (int i = 0; i < 3; ++i) sums.add({kind, 1, now, "x"}, oneOf(kMostMs), INT64_MAX / 2);
    sums.take(batch);
    SqliteSink sink;
    std::string error;
    ASSERT_TRUE(sink.open(file, {}, error)) << error;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(sink.write({&batch, 1}, error), StoreSink::Wrote::kDone) << error;
    EXPECT_EQ(execute(file, "SELECT DISTINCT typeof(total_us) || total_us FROM sums"),
              "integer9223372036854775807\n");
    ASSERT_TRUE(query.openFile(file)) << query.error();
    Backends backends;
    ASSERT_EQ(query.backends(lastMinutes().span, backends), Answered::kOk) << query.error();
    EXPECT_GT(backends.rows.at(0).averageMs, 0);
}

TEST_F(StoreTest, StopsWritingBeforeItsJournalFillsTheDiskAndGivesReplacedNamesUp) {
    Batch batch;
    for (const std::int64_t since : {1, 5, 9}) batch.names.push_back({1, 7, 2, since, std::to_string(since)});
    batch.instances.emplace_back().instance = 1;
    batch.instances[0].lastAt = now;
    StoredTransaction& stored = batch.transactions.emplace_back();
    stored.row.id = 6;
    stored.row.at = now;
    stored.lines.assign(100'000, 'x');
    SqliteSink sink;
    std::string error;
    ASSERT_TRUE(sink.open(file, {7, 0, 2, 50}, error)) << error;
    EXPECT_EQ(sink.write({&batch, 1}, error), StoreSink::Wrote::kDone) << error;
    sink.retain(now, error);
    EXPECT_EQ(execute(file, "SELECT name FROM names"), "5\n9\n") << "the oldest transaction can mean these";

    sqlite3* reader = nullptr;
    sqlite3_open(file.c_str(), &reader);
    sqlite3_exec(reader, "BEGIN; SELECT count(*) FROM names", nullptr, nullptr, nullptr);
    auto answer = StoreSink::Wrote::kDone;
    for (int i = 0; i < 100 && answer == StoreSink::Wrote::kDone; ++i)
        answer = sink.write({&batch, 1}, error);
    EXPECT_EQ(answer, StoreSink::Wrote::kLater);
    EXPECT_NE(error.find("somebody has been reading"), std::string::npos) << error;
    EXPECT_LT(std::filesystem::file_size(file + "-wal"), 3U << 20);
    sqlite3_close(reader);
    EXPECT_EQ(sink.write({&batch, 1}, error), StoreSink::Wrote::kDone) << "as soon as that is over";
}

TEST_F(StoreTest, ExportsWholePagesAndTellsWhereItCannot) {
    open();
    for (const char* line : {"7,2,Pay", "5,Shop.buy,7", "5,HTTP_stock,9"}) take(line);
    for (int i = 0; i < 450; ++i)
        transaction(1000 + i, 200'000 - i, i % 50, 10,
                    i == 200 ? "7:5_0_0__T1:9:2.500:1:-:0::::200_7:5_1_9____" : "");
    take("2,2000:1200:3,1,5,x.1,2,/stock,,0,0,0,,0,-1,,,," + std::to_string(now - 1000 - kEpoch));
    take("4,2000,200,10,7,5,2,0,,0,");
    const std::vector<std::string> otlp = {"--db", file, "--format", "otlp-json"};
    const auto lines = [](const std::string& text, const char* end) {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = text.find(end, at)) != std::string::npos; ++at) ++count;
        return count;
    };
    close();
    const std::string spans = exported(otlp).text;
    EXPECT_EQ(lines(spans, "\n"), 3U);
    EXPECT_EQ(lines(spans, "\"kind\":2"), 451U);
    EXPECT_EQ(lines(spans, "\"name\":\"Shop.buy\"") + lines(spans, "\"name\":\"HTTP_stock\""), 2U);
    const std::size_t stock = spans.find("/stock"), trace = spans.rfind("\"traceId\":\"", stock);
    EXPECT_GE(lines(spans, spans.substr(trace, 44).c_str()), 2U) << "it is in the trace of its caller";
    for (const char* table :
         {"records", "callouts", "sums", "buckets", "monitors", "names", "links", "instances"})
        EXPECT_EQ(lines(exported({"--db", file, "--format", "csv", "--table", table}).text, "\r\n"),
                  1 + std::stoul(execute(file, std::string("SELECT count(*) FROM ") + table)))
            << table;
    EXPECT_EQ(lines(exported({"--db", file, "--format", "csv", "--to", std::to_string(now - 100'000)}).text,
                    "\r\n"),
              451U);
    std::string error;
    const std::size_t stored = std::stoul(execute(file, "SELECT count(*) FROM sums"));
    const auto database = openSqlite(file, kQueryTimeMs, error);
    StorePager pager(*database, tableOf(kSums), {}, 1);
    std::size_t paged = 0;
    for (bool more = true; std::exchange(more, false) && paged <= stored;) {
        EXPECT_EQ(pager.next([&](const ResultRow&) { more = true; }, error), Answered::kOk) << error;
        paged += more;
        execute(
            file,
            "INSERT INTO sums SELECT DISTINCT step, kind, (SELECT max(at) + 1 FROM sums), 1, 'x', 1, 1, 0, "
            "0, 0, 0, 1, 1, 1 FROM sums");
    }
    EXPECT_EQ(paged, stored) << "what comes behind its beginning stays out, or it would never end";
    execute(file, "DELETE FROM records WHERE tx % 2");
    EXPECT_EQ(lines(exported(otlp).text, "\"kind\":2"), 225U) << "without its records it is not told";
    const std::string before = test::fileText(file);
    for (const char* out : {"/dev/full", file.c_str(), "/no/where"}) {
        const test::Exported told = exported({"--db", file, "--format", "csv", "--out", out});
        EXPECT_TRUE(told.code == 1 && told.fault.find(out) != std::string::npos) << told.fault;
    }
    EXPECT_EQ(test::fileText(file), before) << "the database is not written over";
}

TEST_F(StoreTest, WritesNothingIntoAFileThatSomebodyTookAway) {
    open();
    take("7,2,Pay");
    std::filesystem::rename(file, file + ".away");
    transaction(1, 1000, 5);
    store->intake().flush(now + kFlushEvery, true);
    ASSERT_TRUE(
        test::eventually([&] { return store->status().fault.find("was removed") != std::string::npos; }));
    std::filesystem::rename(file + ".away", file);
    ASSERT_TRUE(test::eventually([&] { return store->status().written == 1; }));
    EXPECT_EQ(store->status().fault, "");
}

TEST_F(StoreTest, BelievesClocksWithinADayAndSurvivesItsOwnBeingSetBack) {
    open();
    take("7,2,Pay");
    transaction(1, -3'600'000, 5);    // of a host whose clock is an hour ahead
    transaction(2, -200'000'000, 5);  // and of one that cannot be believed
    runs.turn(now - 7'200'000);
    transaction(3, 7'200'000, 5);
    store->intake().flush(now - 7'200'000);
    ASSERT_TRUE(test::eventually([&] { return store->status().written == 3; }))
        << "it does not wait two hours";
    close();
    std::vector<TransactionRow> rows;
    ASSERT_EQ(query.transactions({}, rows), Answered::kOk);
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_TRUE(rows[0].flowpath == 1 && rows[0].at == now + 3'600'005);
    EXPECT_TRUE(rows[1].flowpath == 2 && rows[1].at == now);
    EXPECT_TRUE(rows[2].flowpath == 3 && rows[2].at == now - 7'200'000 + 5);
}

TEST_F(StoreTest, GivesUpInstancesThatAreGoneAndAsksThoseThatComeBackForTheirNames) {
    const Identity stays{"Web", "host1", "stays", ""};
    test::FakeClock clock;
    open();
    Identities ids;
    const auto connect = [&](const Identity& identity) {
        runs.opened(StreamKind::kData, runs.of(identity.text()));
        return idsOf(ids, identity);
    };
    connect(stays);
    const GivenIds before = connect(kShop);
    for (const char* line : {"5,Shop.buy,7", "2,1,1,5,5.1,2,/a,,0,0,0,,0,-1,,,,5", "3,1,7:5_0_0__", "10,"})
        take(line);
    take("2,2,1,5,5.1,2,/a,,0,0,0,,0,-1,,,,5");  // has no end
    runs.closed(StreamKind::kData, runs.of(kShop.text()));
    clock.advanceMs(kKeepGone - 1);
    runs.turn(now + 2 * kKeepGone);  // a clock that is set gives nobody up
    EXPECT_TRUE(runs.takeGivenUp().empty());
    clock.advanceMs(60'000);
    runs.turn(now + 2 * kKeepGone);
    EXPECT_EQ(runs.takeGivenUp(), std::vector<std::string>{kShop.text()}) << "what is connected stays";
    forgetIds(ids, kShop.text());
    EXPECT_EQ(ids.apps.known.size() + ids.servers.known.size() + ids.tiers.known.size(), 3U);
    EXPECT_TRUE(runs.takeNameless().empty()) << "it had told its methods";

    const GivenIds after = connect(kShop);
    EXPECT_TRUE(after.instance > before.instance && after.tierID == before.tierID);
    take("7,2,Pay");
    for (int i = 0; i < 3; ++i) take("4,3,200,10,0,40,2,0,,0,7:5_0_0__7:5_1_4____");
    EXPECT_EQ(runs.takeNameless(), std::vector<std::string>{kShop.text()}) << "once";
    for (std::size_t at = 0; at < kMostInstances + 3; ++at) runs.of("T/h/" + std::to_string(at));
    EXPECT_EQ(runs.takeGivenUp().size(), 5U) << "nothing that is connected gives way";
    close();
    std::vector<LinkRow> links;
    ASSERT_EQ(query.links({}, instanceKey(kShop.text()), kSumStep, links), Answered::kOk);
    std::int64_t incomplete = 0;
    for (const LinkRow& link : links) incomplete += link.incomplete;
    EXPECT_EQ(incomplete, 2) << "one at the end of its run, one when it was given up";
    std::vector<TransactionRow> rows;
    ASSERT_EQ(query.transactions({}, rows), Answered::kOk);
    EXPECT_EQ(rows.size(), 3U);
}

TEST_F(StoreTest, ForgetsTransactionsWithoutAnEndAndCountsThem) {
    open();
    take("7,2,Pay");
    const std::string items(200'000, 'x');
    for (int i = 0; i < 500; ++i) {  // 100 MB: more than may be in flight
        take("2," + std::to_string(i + 1) + ",1,5,5.1,2,/a,,0,0,0,,0,-1,,,,5");
        take("3," + std::to_string(i + 1) + "," + items);
        take("3," + std::to_string(i + 1) + "," + items);  // more than is kept of one
    }
    take("4,500,200,10,0,40,2,0,,0,");
    take("10,");
    close();
    std::vector<LinkRow> links;
    ASSERT_EQ(query.links({}, 0, 10000, links), Answered::kOk);
    ASSERT_GE(links.size(), 1U);
    EXPECT_EQ(links[0].incomplete, 499);
    std::vector<TransactionRow> rows;
    TransactionDetails tx;
    ASSERT_EQ(query.transactions({}, rows), Answered::kOk);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(query.transaction(rows[0].id, tx), Answered::kCut);
    EXPECT_TRUE(tx.cut && tx.records.size() == 3);
}

}  // namespace
}  // namespace vx::collector
