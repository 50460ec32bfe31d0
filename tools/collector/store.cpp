#include "tools/collector/store.h"

namespace vx::collector {

namespace {

constexpr std::size_t kMostNames = 200'000;  // remembered from former times
constexpr int kNamesMs = 20'000;

}  // namespace

Store::~Store() {
    if (writer_) finish();
}

void Store::finish() {
    intake_->flush(epochNow(), true);
    writer_->finish();
}

bool Store::openFile(const std::string& path, const Retention& retention, std::string& error) {
    auto sink = std::make_unique<SqliteSink>();
    if (!sink->open(path, retention, error)) return false;
    const std::int64_t nextId = sink->nextId();
    StoreQuery query;
    if (!query.openFile(path, kNamesMs)) {
        error = query.error();
        return false;
    }
    query.instances(former_);
    return begin(std::move(sink), nextId, query);
}

bool Store::begin(std::unique_ptr<StoreSink> sink, std::int64_t nextId, StoreQuery& query) {
    std::vector<StoredName> names;
    query.names(kMostNames, nextId, names);
    intake_.emplace(queue_, nextId);
    intake_->remember(std::move(names));
    writer_ = std::make_unique<StoreWriter>(queue_, std::move(sink));
    return true;
}

bool Store::openClickHouse(const std::string& url, int collector, double keepDays, std::string& error) {
    HttpAddress address;
    auto sink = std::make_unique<ClickHouseSink>();
    if (!readAddress(url, address)) {
        // Not repeated here: there may be a password in it.
        error = "the URL of --clickhouse is not http://[user:password@]host[:port][/database]";
        return false;
    }
    if (!sink->open(address, collector, keepDays, error)) return false;
    kind_ = "clickhouse";
    const std::int64_t nextId = sink->nextId();
    StoreQuery query;
    if (query.openClickHouse(url, kNamesMs)) return begin(std::move(sink), nextId, query);
    error = query.error();
    return false;
}

StoreStatus Store::status() const {
    StoreStatus out;
    out.kind = kind_;
    out.queuedBytes = queue_.bytes();
    out.dropped = intake_->dropped();
    out.lostSums = intake_->lostSums();
    const StoreWriter::Status writer = writer_->status();
    out.commits = writer.commits;
    out.written = writer.transactions;
    out.dropped += writer.lost;
    out.bytes = writer.holds.bytes;
    out.oldestAt = writer.holds.oldestAt;
    out.fault = writer.fault;
    return out;
}

}  // namespace vx::collector
