// What the collector stores, against the very streams that it took, and what a crash leaves of it.
#include <gtest/gtest.h>
#include <jansson.h>
#include <sqlite3.h>

#include <csignal>
#include <map>
#include <memory>
#include <set>
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

// What OTLP's JSON form asks of a file of requests: names of members, types, ids and times.
class Otlp {
public:
    ByName transactions;  // spans of servers, by their names

    void read(const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            const std::unique_ptr<json_t, decltype(&json_decref)> root(json_loads(line.c_str(), 0, nullptr),
                                                                       json_decref);
            ASSERT_TRUE(root) << line;
            each(root.get(), "resourceSpans", {"resourceSpans"}, [this](const json_t* resource) {
                attributes(json_object_get(resource, "resource"), {"attributes"});
                each(resource, "scopeSpans", {"resource", "scopeSpans"}, [this](const json_t* scope) {
                    each(scope, "spans", {"scope", "spans"}, [this](const json_t* span) { take(span); });
                });
            });
        }
        for (const auto& [parent, trace] : parents_) EXPECT_EQ(traces_[parent], trace) << "parent " << parent;
    }
    std::size_t spans() const { return traces_.size(); }

private:
    static std::string text(const json_t* object, const char* key) {
        const json_t* value = json_object_get(object, key);
        EXPECT_TRUE(json_is_string(value)) << key;
        return json_is_string(value) ? json_string_value(value) : "";
    }
    static void members(const json_t* object, const std::set<std::string>& known) {
        EXPECT_TRUE(json_is_object(object));
        const char* key = nullptr;
        json_t* value = nullptr;
        json_object_foreach(const_cast<json_t*>(object), key, value) EXPECT_TRUE(known.contains(key)) << key;
    }
    template <class Take>
    static void each(const json_t* object, const char* list, const std::set<std::string>& known, Take take) {
        members(object, known);
        const json_t* array = json_object_get(object, list);
        EXPECT_TRUE(json_is_array(array)) << list;
        for (std::size_t at = 0; at < json_array_size(array); ++at) take(json_array_get(array, at));
    }
    static void attributes(const json_t* object, const std::set<std::string>& known) {
        each(object, "attributes", known, [](const json_t* attribute) {
            members(attribute, {"key", "value"});
            EXPECT_NE(text(attribute, "key"), "");
            const json_t* value = json_object_get(attribute, "value");
            EXPECT_EQ(json_object_size(value), 1U);
            if (json_object_get(value, "intValue"))
                number(value, "intValue");  // 64-bit numbers are texts
            else
                text(value, "stringValue");
        });
    }
    static std::int64_t number(const json_t* object, const char* key) {
        const std::string digits = text(object, key);
        std::int64_t value = -1;
        EXPECT_TRUE(readNumber(digits, value)) << key << " " << digits;
        return value;
    }
    static std::string id(const json_t* object, const char* key, std::size_t digits) {
        const std::string value = text(object, key);
        EXPECT_TRUE(value.size() == digits &&
                    value.find_first_not_of("0123456789abcdef") == std::string::npos &&
                    value.find_first_not_of('0') != std::string::npos)
            << key << " " << value;
        return value;
    }
    void take(const json_t* span) {
        static const std::set<std::string> kSpan = {
            "traceId",           "spanId",          "parentSpanId", "name",   "kind",
            "startTimeUnixNano", "endTimeUnixNano", "attributes",   "events", "status"};
        attributes(span, kSpan);
        const std::string trace = id(span, "traceId", 32), own = id(span, "spanId", 16);
        EXPECT_TRUE(traces_.emplace(own, trace).second) << "an id twice: " << own;
        if (json_object_get(span, "parentSpanId")) parents_.emplace_back(id(span, "parentSpanId", 16), trace);
        const std::int64_t start = number(span, "startTimeUnixNano"), end = number(span, "endTimeUnixNano");
        EXPECT_TRUE(start > 0 && start <= end) << start << " " << end;
        if (json_object_get(span, "events"))
            each(span, "events", kSpan, [&](const json_t* event) {
                attributes(event, {"timeUnixNano", "name", "attributes"});
                const std::int64_t at = number(event, "timeUnixNano");
                EXPECT_TRUE(at >= start && at <= end && text(event, "name") == "exception");
            });
        const json_t *kind = json_object_get(span, "kind"), *status = json_object_get(span, "status");
        EXPECT_TRUE(json_is_integer(kind) && json_integer_value(kind) >= 1 && json_integer_value(kind) <= 5);
        if (status) members(status, {"code"});
        const json_int_t code = json_integer_value(json_object_get(status, "code"));
        EXPECT_TRUE(code == (status ? 2 : 0));
        EXPECT_NE(text(span, "name"), "");
        if (json_integer_value(kind) != 2) return;
        Counted& bt = transactions[text(span, "name")];
        ++bt.count;
        bt.errors += code == 2;
        bt.totalMs += (end - start) / 1'000'000;
    }

    std::map<std::string, std::string> traces_;  // by span
    std::vector<std::pair<std::string, std::string>> parents_;
};

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
        return query.count({}, count) == Answered::kOk ? count : 0;  // asked again by who waits
    }
    std::string exported(const char* format) const {
        Program::Setup setup;
        setup.arguments = {programPath("vxcollector"), "export", "--db", file, "--format", format};
        setup.outputFile = dir / format;
        EXPECT_EQ(Program(setup).wait(), 0);
        return dir.read(format);
    }
    std::string textOf(const char* sql) const {
        sqlite3* database = nullptr;
        std::string answer;
        sqlite3_open(file.c_str(), &database);
        sqlite3_busy_timeout(database, 60'000);
        sqlite3_exec(
            database, sql,
            [](void* out, int, char** values, char**) {
                *static_cast<std::string*>(out) += values[0] ? values[0] : "null";
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
    ASSERT_EQ(collector->wait(), 0);
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

    Otlp otlp;
    otlp.read(exported("otlp-json"));
    EXPECT_TRUE(otlp.transactions == bts);
    EXPECT_GT(otlp.spans(), 4 * delivered) << "methods and callouts have spans";
    const std::string table = exported("csv");
    EXPECT_TRUE(table.starts_with("id,instance,flowpath,at,start,duration,")) << table.substr(0, 200);
    std::size_t rowsWritten = 0;
    for (std::size_t at = 0; (at = table.find("\r\n", at)) != std::string::npos; at += 2) ++rowsWritten;
    EXPECT_EQ(rowsWritten, delivered + 1);
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
    EXPECT_EQ(textOf("PRAGMA integrity_check"), "ok");
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
    service->signal(SIGKILL);
    service->wait();
    startService();
    const std::uint64_t between = storedCount(query);
    EXPECT_TRUE(eventually([&] { return storedCount(query) > between + 100; })) << "with a new service, too";
    EXPECT_EQ(textOf("SELECT count(*) - count(DISTINCT flowpath || ' ' || start) FROM transactions"), "0")
        << "nothing is stored twice";
    EXPECT_EQ(
        textOf("SELECT count(*) FROM transactions t LEFT JOIN records r ON r.tx = t.id WHERE r.lines "
               "NOT LIKE '2,' || t.flowpath || ',%' || char(10) || '4,' || t.flowpath || ',%' || char(10)"),
        "0")
        << "nothing is mixed";
    EXPECT_EQ(textOf("SELECT count(*) FROM transactions WHERE bt = '' OR bt LIKE 'BT %'"), "0")
        << "nor unnamed";
}

}  // namespace
}  // namespace vx::test
