// What the collector stores, against the very streams that it took, and what a crash leaves of it.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <csignal>
#include <map>
#include <sstream>

#include "tests/support/e2e_fixture.h"
#include "tools/collector/collector_text.h"
#include "tools/collector/store_query.h"

namespace vx::test {
namespace {

using namespace vx::collector;

struct Counted {
    std::uint64_t count = 0, errors = 0;
    std::int64_t totalMs = 0;
    bool operator==(const Counted&) const = default;
};
using ByName = std::map<std::string, Counted>;

class StoreRoad : public EndToEnd {
protected:
    std::string file = dir / "store.db";

    // Adds the 4 records up, and callouts by their back-ends: with nothing but splitting at separators.
    void addUp(ByName& bts, ByName& backends) const {
        std::map<std::string, std::string> btNames, methodNames;
        std::istringstream lines(streams("data"));
        for (std::string line; std::getline(lines, line);) {
            std::vector<std::string> field;
            std::istringstream fields(line);
            for (std::string text; std::getline(fields, text, ',');) field.push_back(text);
            if (field.size() == 3 && field[0] == "7") btNames[field[1]] = field[2];
            if (field.size() == 3 && field[0] == "5") methodNames[field[2]] = plainName(field[1]);
            if (field.size() < 10 || field[0] != "4") continue;
            Counted& bt = bts[btNames[field[6]]];
            ++bt.count;
            bt.errors += field[3] == "13";
            bt.totalMs += std::stoll(field[5]);
        }
        lines = std::istringstream(streams("data"));
        for (std::string line; std::getline(lines, line);) {
            if (!line.starts_with("3,") && !line.starts_with("4,")) continue;
            std::istringstream items(line);
            for (std::string item; std::getline(items, item, '_');) {
                const std::size_t mark = item.find_last_of(",TE");
                if (mark == std::string::npos || item[mark] == ',') continue;
                const std::size_t id = item.find(':', mark);
                Counted& backend =
                    backends[methodNames[item.substr(id + 1, item.find(':', id + 1) - id - 1)]];
                ++backend.count;
                backend.errors += item[mark] == 'E';
            }
        }
    }
    std::uint64_t storedCount(StoreQuery& query) const {
        std::uint64_t count = 0;
        std::vector<TransactionRow> rows;
        std::int64_t last = 0;
        while (query.transactionsBehind(last, {}, 5000, rows) == Answered::kOk && !rows.empty()) {
            count += rows.size();
            last = rows.back().id;
        }
        return count;
    }
    std::string integrity() const {
        sqlite3* database = nullptr;
        std::string answer;
        sqlite3_open(file.c_str(), &database);
        sqlite3_exec(
            database, "PRAGMA integrity_check",
            [](void* out, int, char** values, char**) {
                *static_cast<std::string*>(out) += values[0];
                return 0;
            },
            &answer, nullptr);
        sqlite3_close(database);
        return answer;
    }
};

TEST_F(StoreRoad, HoldsWhatTheStreamsAddUpTo) {
    Program::Setup setup;
    setup.arguments = {programPath("vxagent"), "load", "--entry-points"};
    setup.outputFile = dir / "entry.txt";
    ASSERT_EQ(Program(setup).wait(), 0);
    dir.write("files/VXEntryPointsFile", dir.read("entry.txt"));
    startCollector({"--db", file, "--files", dir / "files"});
    startService();
    deliver(400, {"--rate", "200", "--callouts", "2", "--exceptions", "3", "--errors", "10", "--headers",
                  "30", "--duration", "100"});
    ASSERT_TRUE(arrive(delivered)) << traceText();
    collector->signal(SIGINT);
    ASSERT_EQ(collector->wait(30), 0);
    EXPECT_NE(collector->output().find("store: " + std::to_string(delivered) + " transactions, dropped 0"),
              std::string::npos)
        << collector->output();
    ByName bts, backends, summed, listed, calls;
    addUp(bts, backends);
    StoreQuery query;
    ASSERT_TRUE(query.openFile(file)) << query.error();
    Sums sums;
    ASSERT_EQ(query.sums({}, sums), Answered::kOk) << query.error();
    for (const SumsRow& row : sums.rows)
        summed[row.name] = {row.figures.count, row.figures.error, row.figures.totalMs};
    std::vector<TransactionRow> rows;
    TransactionsQuery all;
    all.limit = 10'000;
    ASSERT_EQ(query.transactions(all, rows), Answered::kOk);
    for (const TransactionRow& row : rows) {
        Counted& bt = listed[row.bt];
        ++bt.count;
        bt.errors += row.category == 13;
        bt.totalMs += row.duration;
    }
    Backends answer;
    ASSERT_EQ(query.backends({}, answer), Answered::kOk);
    for (const BackendSums& row : answer.rows) calls[row.name] = {row.count, row.errors, 0};
    EXPECT_TRUE(bts.size() > 1 && backends.size() > 1);
    EXPECT_TRUE(bts == summed);
    EXPECT_TRUE(bts == listed);
    for (const auto& [name, row] : backends)
        EXPECT_TRUE(row == calls[name]) << name << " " << row.count << " " << row.errors << " stored "
                                        << calls[name].count << " " << calls[name].errors;
    EXPECT_EQ(backends.size(), calls.size());
}

TEST_F(StoreRoad, LosesNothingThatWasStoredWhenTheCollectorIsKilled) {
    startCollector({"--db", file});
    startService();
    const auto load = startLoad({"--rate", "1000", "--duration", "1000", "--headers", "20"});
    ASSERT_TRUE(arrive(500));
    const std::uint64_t before = arrived();
    StoreQuery watch;
    ASSERT_TRUE(watch.openFile(file)) << watch.error();
    ASSERT_TRUE(eventually([&] { return storedCount(watch) >= before; })) << "what came is stored soon";
    collector->signal(SIGKILL);
    collector->wait();
    EXPECT_EQ(integrity(), "ok");
    StoreQuery query;
    ASSERT_TRUE(query.openFile(file)) << query.error();
    const std::uint64_t kept = storedCount(query);
    EXPECT_GE(kept, before);
    EXPECT_LE(kept, arrived());
    std::vector<TransactionRow> rows;
    ASSERT_EQ(query.transactions({}, rows), Answered::kOk);
    TransactionDetails details;
    ASSERT_EQ(query.transaction(rows.at(0).id, details), Answered::kOk);
    EXPECT_GE(details.records.size(), 2U) << "a transaction comes with its records";
    startCollector({"--db", file});
    EXPECT_TRUE(eventually([&] { return storedCount(query) > kept + 100; })) << "and it goes on";
}

}  // namespace
}  // namespace vx::test
