#include "tools/collector/store.h"

namespace vx::collector {

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
    intake_.emplace(queue_, sink->nextId());
    writer_ = std::make_unique<StoreWriter>(queue_, std::move(sink));
    return true;
}

bool Store::openClickHouse(const std::string& url, int collector, double keepDays, std::string& error) {
    HttpAddress address;
    auto sink = std::make_unique<ClickHouseSink>();
    if (!readAddress(url, address)) {
        error = "not an address (http://[user:password@]host[:port][/database]): " + url;
        return false;
    }
    if (!sink->open(address, collector, keepDays, error)) return false;
    kind_ = "clickhouse";
    intake_.emplace(queue_, sink->nextId());
    writer_ = std::make_unique<StoreWriter>(queue_, std::move(sink));
    return true;
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
