#include "tools/collector/export_command.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "tools/collector/export_otlp.h"
#include "tools/collector/export_text.h"
#include "tools/collector/store_query.h"
#include "tools/collector/store_schema.h"

namespace vx::collector {

namespace {

constexpr std::size_t kPage = 200;  // transactions of a line of OTLP
constexpr std::size_t kCsvPage = 5000;
constexpr int kPageTimeMs = 600'000;  // nobody waits for an answer but the one who exports
constexpr int kMostTiers = 16;        // of a chain of callers

constexpr const char* kHelp =
    "Usage: vxcollector export --db FILE --format otlp-json|csv [options]\n"
    "\n"
    "Writes what a database of vxcollector holds; it may be in use.\n"
    "\n"
    "  --db FILE         the database\n"
    "  --format FORMAT   otlp-json: transactions as OpenTelemetry spans, a request in each line\n"
    "                    csv: a table, its columns in the first line\n"
    "  --table NAME      csv: which one (default transactions; docs/collector.md lists them)\n"
    "  --from TIME, --to TIME\n"
    "                    what ended in between: 2026-11-22T10:30:00 (UTC), or milliseconds since 1970\n"
    "  --out FILE        default: standard output\n";

struct ExportOptions {
    std::string database, format, table = "transactions", out;
    TimeSpan span;
    bool help = false;
};

// Empty when all is well, else what is wrong.
std::string readOptions(int argc, char** argv, ExportOptions& out) {
    for (int at = 0; at < argc; ++at) {
        const std::string name = argv[at];
        if (name == "--help") {
            out.help = true;
            return {};
        }
        if (at + 1 >= argc) return "unknown option, or one without its value, '" + name + "'";
        const std::string value = argv[++at];
        if (name == "--db")
            out.database = value;
        else if (name == "--format")
            out.format = value;
        else if (name == "--table")
            out.table = value;
        else if (name == "--out")
            out.out = value;
        else if (name != "--from" && name != "--to")
            return "unknown option '" + name + "'";
        else if (!readTime(value, name == "--from" ? out.span.from : out.span.to))
            return "not a time: '" + value + "'";
    }
    if (out.database.empty()) return "an option is missing: --db FILE";
    if (out.format != "otlp-json" && out.format != "csv") return "--format is otlp-json or csv";
    return {};
}

struct Closer {
    void operator()(std::FILE* file) const {
        if (file != stdout) std::fclose(file);
    }
};
using Output = std::unique_ptr<std::FILE, Closer>;

bool put(std::FILE* out, const std::string& text) {
    return std::fwrite(text.data(), 1, text.size(), out) == text.size();
}

// The trace of a transaction is that of the first tier of its chain.
TraceIds idsOf(StoreQuery& query, const TransactionRow& row) {
    TraceIds ids = ownIds(row);
    TransactionRow tier = row, caller;
    for (int passed = 0; passed < kMostTiers && tier.previous; ++passed) {
        if (query.callerOf(tier, caller) != Answered::kOk || caller.id == tier.id) break;
        const TraceIds above = ownIds(caller);
        if (passed == 0) ids.parent = above.span;
        ids.trace = above.trace;
        tier = caller;
    }
    return ids;
}

// A page as one request: spans by their instances.
Answered pageOf(StoreQuery& query, const std::vector<TransactionRow>& rows,
                const std::map<std::int64_t, InstanceRow>& instances, std::string& line) {
    std::map<std::int64_t, std::string> spans;
    for (const TransactionRow& row : rows) {
        TransactionDetails tx;
        const Answered answer = query.transaction(row.id, tx);
        if (answer == Answered::kFailed && query.error().empty()) continue;  // given up meanwhile
        if (answer == Answered::kFailed) return answer;
        addSpans(spans[row.instance], tx, idsOf(query, row));
    }
    line = R"({"resourceSpans":[)";
    for (const auto& [key, list] : spans) {
        const auto instance = instances.find(key);
        if (line.back() == '}') line += ',';
        line.append(R"({"resource":{"attributes":)");
        line.append(instance == instances.end() ? "[]" : resourceOf(instance->second));
        line.append(R"(},"scopeSpans":[{"scope":{"name":"vxcollector","version":")" VX_VERSION
                    R"("},"spans":[)");
        line.append(list).append("]}]}");
    }
    line += "]}\n";
    return Answered::kOk;
}

bool exportOtlp(const ExportOptions& options, std::FILE* out, std::string& error) {
    StoreQuery query;
    std::map<std::int64_t, InstanceRow> instances;
    std::vector<InstanceRow> list;
    std::vector<TransactionRow> rows;
    bool read = query.openFile(options.database, kPageTimeMs) && query.instances(list) != Answered::kFailed;
    for (InstanceRow& row : list) instances.emplace(row.instance, std::move(row));
    for (std::int64_t last = 0; read;) {
        read = query.transactionsBehind(last, options.span, kPage, rows) == Answered::kOk;
        if (!read || rows.empty()) break;
        last = rows.back().id;
        std::string line;
        read = pageOf(query, rows, instances, line) == Answered::kOk;
        if (read && !put(out, line)) {
            error = std::strerror(errno);
            return false;
        }
    }
    if (!read) error = query.error().empty() ? "it takes too long to read" : query.error();
    return read;
}

const Table* tableNamed(const std::string& name) {
    for (int id = 0; id < kTables; ++id)
        if (name == tableOf(static_cast<TableId>(id)).name) return &tableOf(static_cast<TableId>(id));
    return nullptr;
}

bool hasTime(const Table& table) {
    return std::any_of(table.columns.begin(), table.columns.end(),
                       [](const Column& column) { return !std::strcmp(column.name, "at"); });
}

void addSpan(Sql& sql, const Table& table, TimeSpan span) {
    if (hasTime(table)) sql.add(" AND at >= ?", span.from).add(" AND at < ?", span.to);
}

// Tables of transactions are read in pages of their first column, which grows; the others at once.
bool exportTable(const ExportOptions& options, const Table& table, Database& database, std::FILE* out,
                 std::string& error) {
    const std::string first = table.columns.front().name;
    const bool paged = first == "id" || first == "tx";
    bool written = put(out, columnsOf(table, ",") + "\r\n");
    for (std::int64_t last = 0, seen = 1; written && seen > 0;) {
        Sql sql("SELECT " + columnsOf(table) + " FROM " + table.name + " WHERE 1 = 1");
        addSpan(sql, table, options.span);
        if (paged) {
            sql.add(" AND " + first + " > ?", last);
            sql.add(" AND ").add(first).add(" <= (SELECT max(x) FROM (SELECT ").add(first);
            sql.add(" AS x FROM ").add(table.name);
            sql.add(" WHERE " + first + " > ?", last);
            addSpan(sql, table, options.span);  // a page without a row in the span would end the export
            sql.add(" ORDER BY x LIMIT ?))", std::int64_t{kCsvPage});
        }
        sql.add(" ORDER BY " + first);
        seen = 0;
        const Answered answer = database.select(
            sql,
            [&](const ResultRow& row) {
                std::string line;
                int at = 0;
                for (const Column& column : table.columns) {
                    if (at > 0) line += ',';
                    if (column.type == ColumnType::kNumber)
                        line += std::to_string(row.number(at));
                    else
                        addCsvText(line, row.text(at));
                    ++at;
                }
                written = written && put(out, line + "\r\n");
                last = row.number(0);
                ++seen;
            },
            error);
        if (answer != Answered::kOk) return false;
        if (!paged) break;
    }
    if (!written) error = std::strerror(errno);
    return written;
}

bool exportCsv(const ExportOptions& options, std::FILE* out, std::string& error) {
    const Table* table = tableNamed(options.table);
    if (!table) {
        error = "no table of that name: " + options.table;
        return false;
    }
    const auto database = openSqlite(options.database, kPageTimeMs, error);
    return database && exportTable(options, *table, *database, out, error);
}

}  // namespace

int exportCommand(int argc, char** argv) {
    ExportOptions options;
    std::string error = readOptions(argc, argv, options);
    if (!error.empty()) {
        std::fprintf(stderr, "vxcollector export: %s (--help tells the options)\n", error.c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(kHelp, stdout);
        return 0;
    }
    Output out(options.out.empty() ? stdout : std::fopen(options.out.c_str(), "w"));
    bool done = out != nullptr;
    if (!done) error = options.out + ": " + std::strerror(errno);
    if (done)
        done = options.format == "csv" ? exportCsv(options, out.get(), error)
                                       : exportOtlp(options, out.get(), error);
    if (done && (std::fflush(out.get()) != 0 || std::ferror(out.get()))) {
        error = std::strerror(errno);
        done = false;
    }
    if (!done) std::fprintf(stderr, "vxcollector export: %s\n", error.c_str());
    return done ? 0 : 1;
}

}  // namespace vx::collector
