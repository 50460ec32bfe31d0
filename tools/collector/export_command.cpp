#include "tools/collector/export_command.h"

#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "tools/collector/export_otlp.h"
#include "tools/collector/export_source.h"
#include "tools/collector/export_text.h"
#include "tools/collector/store_clickhouse.h"
#include "tools/collector/store_pager.h"

namespace vx::collector {

namespace {

constexpr std::size_t kCsvPage = 500, kMostOfRequest = std::size_t{8} * 1024 * 1024;
// Nobody waits for an answer but the one who exports; a server's has to come before its connection is given
// up.
constexpr const char* kTooLong = "it takes too long to read";
constexpr int kFileTimeMs = 600'000, kServerTimeMs = 15'000;

constexpr const char* kHelp =
    "Usage: vxcollector export --db FILE|--clickhouse URL --format otlp-json|csv [options]\n"
    "\n"
    "Writes what vxcollector has stored; it may be in use.\n"
    "\n"
    "  --db FILE         a database file\n"
    "  --clickhouse URL  a server: http://[user:password@]host[:port][/database]\n"
    "  --format FORMAT   otlp-json: transactions as OpenTelemetry spans, a request in each line\n"
    "                    csv: a table, its columns in the first line\n"
    "  --table NAME      csv: which one (default transactions; docs/collector.md lists them)\n"
    "  --from TIME, --to TIME\n"
    "                    what ended in between: 2026-11-22T10:30:00 (UTC), or milliseconds since 1970\n"
    "  --out FILE        default: standard output\n";

struct ExportOptions {
    std::string file, server, format, table = "transactions", out;
    TimeSpan span;
    bool help = false;
};

std::string* textOption(const std::string& name, ExportOptions& out) {
    if (name == "--db") return &out.file;
    if (name == "--clickhouse") return &out.server;
    if (name == "--format") return &out.format;
    if (name == "--table") return &out.table;
    return name == "--out" ? &out.out : nullptr;
}

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
        if (std::string* const text = textOption(name, out))
            *text = value;
        else if (name != "--from" && name != "--to")
            return "unknown option '" + name + "'";
        else if (!readTime(value, name == "--from" ? out.span.from : out.span.to))
            return "not a time: '" + value + "'";
    }
    if (out.file.empty() == out.server.empty()) return "one of --db FILE and --clickhouse URL is needed";
    if (out.format != "otlp-json" && out.format != "csv") return "--format is otlp-json or csv";
    return {};
}

// Null with the reason in `error`. Neither is made where it is not there.
std::unique_ptr<Database> openSource(const ExportOptions& options, std::string& error) {
    if (options.server.empty()) return openSqlite(options.file, kFileTimeMs, error);
    HttpAddress address;
    if (readAddress(options.server, address)) return openClickHouse(address, kServerTimeMs, error);
    // Not repeated here: there may be a password in it.
    error = "the URL of --clickhouse is not http://[user:password@]host[:port][/database]";
    return nullptr;
}

// Where it goes; the first fault stays.
class Output {
public:
    ~Output() { close(); }
    Output() = default;
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool open(const ExportOptions& options) {
        name_ = options.out.empty() ? "standard output" : options.out;
        struct stat source {
        }, target{};
        const bool same = !options.file.empty() && !options.out.empty() &&
                          ::stat(options.file.c_str(), &source) == 0 &&
                          ::stat(options.out.c_str(), &target) == 0 && source.st_ino == target.st_ino &&
                          source.st_dev == target.st_dev;
        if (same) fault_ = name_ + " is the database itself";
        if (same) return false;
        file_ = options.out.empty() ? stdout : std::fopen(options.out.c_str(), "w");
        return file_ || fail();
    }
    bool put(const std::string& text) {
        return std::fwrite(text.data(), 1, text.size(), file_) == text.size() || fail();
    }
    // Says whether all of it has got there.
    bool close() {
        std::FILE* const file = std::exchange(file_, nullptr);
        const bool done = !file || (file == stdout ? std::fflush(file) : std::fclose(file)) == 0;
        return done || fail();
    }
    const std::string& fault() const { return fault_; }

private:
    bool fail() {
        if (fault_.empty()) fault_ = name_ + ": " + std::strerror(errno);
        return false;
    }
    std::FILE* file_ = nullptr;
    std::string name_, fault_;
};

// The trace of a transaction is that of the first tier of its chain.
TraceIds idsOf(const ExportSource& source, const TransactionRow& row) {
    TraceIds ids = ownIds(row);
    const auto callers = source.callersOf(row);
    if (callers.empty()) return ids;
    ids.parent = ownIds(*callers.front()).span;
    ids.trace = ownIds(*callers.back()).trace;
    return ids;
}

// Spans by their instances as one request.
std::string requestOf(const ExportSource& source, const std::map<std::int64_t, std::string>& spans) {
    std::string line = R"({"resourceSpans":[)";
    for (const auto& [key, list] : spans) {
        const InstanceRow* instance = source.instanceOf(key);
        if (line.back() == '}') line += ',';
        line.append(R"({"resource":{"attributes":)");
        line.append(instance ? resourceOf(*instance) : "[]");
        line.append(R"(},"scopeSpans":[{"scope":{"name":"vxcollector","version":")" VX_VERSION
                    R"("},"spans":[)");
        line.append(list).append("]}]}");
    }
    return line + "]}\n";
}

// A page as one request, or as several when it is large.
Answered putPage(ExportSource& source, const std::vector<TransactionRow>& rows, Output& out) {
    std::map<std::int64_t, std::string> spans;
    std::size_t bytes = 0;
    for (std::size_t at = 0; at < rows.size(); ++at) {
        TransactionDetails tx;
        const Answered answer = source.detailsOf(rows[at], tx);
        if (answer != Answered::kOk) return answer;
        std::string& list = spans[tx.row.instance];
        bytes -= list.size();
        addSpans(list, tx, idsOf(source, tx.row));
        bytes += list.size();
        if (bytes < kMostOfRequest && at + 1 < rows.size()) continue;
        if (!out.put(requestOf(source, spans))) break;
        spans.clear();
        bytes = 0;
    }
    return Answered::kOk;
}

bool exportOtlp(const ExportOptions& options, Database& database, Output& out, std::string& error) {
    ExportSource source(database, options.span);
    std::vector<TransactionRow> rows;
    Answered answer = Answered::kOk;
    do {
        answer = source.next(rows);
        if (answer == Answered::kOk) answer = putPage(source, rows, out);
    } while (answer == Answered::kOk && !rows.empty() && out.fault().empty());
    if (source.withoutRecords() > 0)
        std::fprintf(stderr,
                     "vxcollector export: %llu transactions whose records are not there are left out\n",
                     static_cast<unsigned long long>(source.withoutRecords()));
    if (answer == Answered::kCut) error = kTooLong;
    if (answer == Answered::kFailed) error = source.error();
    return answer == Answered::kOk;
}

const Table* tableNamed(const std::string& name) {
    for (int id = 0; id < kTables; ++id)
        if (name == tableOf(static_cast<TableId>(id)).name) return &tableOf(static_cast<TableId>(id));
    return nullptr;
}

void addCsvLine(std::string& out, const Table& table, const ResultRow& row) {
    int at = 0;
    for (const Column& column : table.columns) {
        if (at > 0) out += ',';
        if (column.type == ColumnType::kNumber)
            out += std::to_string(row.number(at));
        else
            addCsvText(out, row.text(at));
        ++at;
    }
    out += "\r\n";
}

// Written when a page has been read: a reader of the output that takes its time holds nothing up.
bool exportTable(const ExportOptions& options, Database& database, Output& out, std::string& error) {
    const Table& table = *tableNamed(options.table);
    StorePager pager(database, table, options.span, table.folds ? kCsvPage : kExportPage);
    Answered answer = Answered::kOk;
    std::string lines = columnsOf(table, ",") + "\r\n";
    while (!lines.empty() && out.put(lines)) {
        lines.clear();
        answer = pager.next([&](const ResultRow& row) { addCsvLine(lines, table, row); }, error);
        if (answer != Answered::kOk) break;
    }
    if (answer == Answered::kCut) error = kTooLong;
    return answer == Answered::kOk;
}

bool exportTo(const ExportOptions& options, std::string& error) {
    if (options.format == "csv" && !tableNamed(options.table)) {
        error = "no table of that name: " + options.table;
        return false;
    }
    const auto database = openSource(options, error);  // before a file is begun anew
    if (!database) return false;
    Output out;
    bool done = out.open(options);
    if (done)
        done = options.format == "csv" ? exportTable(options, *database, out, error)
                                       : exportOtlp(options, *database, out, error);
    done = out.close() && done;
    if (!out.fault().empty()) error = out.fault();
    return done && out.fault().empty();
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
    std::signal(SIGPIPE, SIG_IGN);  // a reader that has enough is told of, as is a file that may not grow
    std::signal(SIGXFSZ, SIG_IGN);
    if (exportTo(options, error)) return 0;
    std::fprintf(stderr, "vxcollector export: %s\n", error.c_str());
    return 1;
}

}  // namespace vx::collector
