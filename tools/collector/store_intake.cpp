#include "tools/collector/store_intake.h"

#include <algorithm>
#include <array>
#include <utility>

#include "commonlibc/vxlb_clock.h"
#include "tools/collector/collector_capture.h"

namespace vx::collector {

namespace {

constexpr std::int64_t kDayMs = 86'400'000;
constexpr std::string_view kAllName = "(all)";
constexpr std::int64_t kInstanceEvery = 10'000;  // how often its row tells that it is still there

constexpr auto kNameRecords = std::to_array<int>({5, 6, 7, 32, 33, 34, 35, 36});
constexpr auto kKeptRecords = std::to_array<int>({3, 12, 13, 19, 38});

template <class List>
bool isOneOf(const List& list, std::int64_t number) {
    return std::find(list.begin(), list.end(), number) != list.end();
}

std::uint64_t nameKey(std::int64_t kind, std::int64_t id) {
    return static_cast<std::uint64_t>(kind) << 32 | static_cast<std::uint64_t>(id);
}

std::size_t textsOf(const TransactionRow& row) {
    return row.url.size() + row.session.size() + row.correlation.size() + row.traceId.size() +
           row.callerSpan.size();
}

// A row for something of a transaction.
template <class Row>
Row& addItem(std::vector<Row>& rows, const TransactionRow& tx, std::int64_t n) {
    Row& row = rows.emplace_back();
    row.tx = tx.id;
    row.n = n;
    row.instance = tx.instance;
    row.at = tx.at;
    row.bt = tx.bt;
    return row;
}

// Names of the instance as they are now.
NameLookup lookupOf(const InstanceState& instance) {
    return [&instance](NameKind kind, std::int64_t id) {
        switch (kind) {
            case NameKind::kBt:
                return knownName(instance.bts, id, "");
            case NameKind::kMethod:
                return knownName(instance.methods, id, "");
            case NameKind::kHeader:
                return knownName(instance.headers, id, "");
            default:
                break;
        }
        const auto part =
            static_cast<std::size_t>(kind) - static_cast<std::size_t>(NameKind::kExceptionClass);
        return knownName(instance.exceptionParts[part], id, "");
    };
}

}  // namespace

StoreIntake::Feed& StoreIntake::feedOf(const std::string& name, std::int64_t now) {
    const auto found = feeds_.find(name);
    if (found != feeds_.end()) {
        // After a long silence the store may have given its names up.
        if (now > found->second.row.lastAt + kOpenFor) found->second.names.clear();
        found->second.row.lastAt = now;
        return found->second;
    }
    Feed& feed = feeds_[name];
    feed.row.instance = instanceKey(name);
    feed.row.app = name;
    feed.row.epochMs = epochMs_;
    feed.row.firstAt = feed.row.lastAt = now;
    feed.link.instance = feed.row.instance;
    return feed;
}

void StoreIntake::remember(std::vector<StoredName> names) {
    for (StoredName& name : names) remembered_[name.instance].push_back(std::move(name));
}

void StoreIntake::recall(InstanceState& instance) {
    const auto found = remembered_.find(instanceKey(instance.name));
    if (found == remembered_.end()) return;
    for (const StoredName& name : found->second) {
        const auto kind = static_cast<NameKind>(name.kind);
        const std::int64_t part = name.kind - static_cast<std::int64_t>(NameKind::kExceptionClass);
        if (kind == NameKind::kBt) instance.bts[name.id] = name.name;
        if (kind == NameKind::kMethod) instance.methods[name.id] = name.name;
        if (kind == NameKind::kHeader) instance.headers[name.id] = name.name;
        if (part >= 0 && part < static_cast<std::int64_t>(instance.exceptionParts.size()))
            instance.exceptionParts[static_cast<std::size_t>(part)][name.id] = name.name;
    }
    remembered_.erase(found);
}

// The figures of the current interval.
LinkRow& StoreIntake::linkOf(Feed& feed, std::int64_t now) {
    const std::int64_t at = now - now % kSumStep;
    if (feed.link.at != at) {
        putLink(feed);
        feed.link.at = at;
    }
    return feed.link;
}

void StoreIntake::putLink(Feed& feed) {
    LinkRow empty;
    empty.at = feed.link.at;
    empty.instance = feed.link.instance;
    const LinkRow row = std::exchange(feed.link, empty);
    if (!row.any()) return;
    batch_.links.push_back(row);
    batch_.bytes += sizeof(row);
}

void StoreIntake::opened(StreamKind kind, const Identity& identity, std::int64_t now) {
    if (kind == StreamKind::kUnknown || kind == StreamKind::kDiscovery) return;
    Feed& feed = feedOf(identity.text(), now);
    feed.row.tier = identity.tier;
    feed.row.server = identity.server;
    feed.row.app = identity.app;
    feed.row.agent = identity.agent;
    feed.told = 0;
    ++linkOf(feed, now).connects;
}

void StoreIntake::closed(StreamKind kind, const Identity& identity, std::int64_t now) {
    if (kind == StreamKind::kUnknown || kind == StreamKind::kDiscovery) return;
    ++linkOf(feedOf(identity.text(), now), now).disconnects;
}

void StoreIntake::giveUp(const std::string& name, std::int64_t now) {
    const auto found = feeds_.find(name);
    if (found == feeds_.end()) return;
    forgetOpen(found->second, now);
    putLink(found->second);
    if (found->second.told < found->second.row.lastAt) putInstance(found->second);
    feeds_.erase(found);
}

void StoreIntake::ordered(std::string_view line) {
    std::int64_t seconds = 0;
    if (!readNumber(fieldOf(line, "zorEpochDiff"), seconds) || seconds < 0 || seconds > kMostMs / 10) return;
    epochMs_ = seconds * 1000;
    for (auto& [name, feed] : feeds_) {
        feed.row.epochMs = epochMs_;
        feed.told = 0;
    }
}

void StoreIntake::compared(const InstanceState& instance, const Answers& answers, std::int64_t now) {
    batch_.comparisons.push_back(
        {now, feedOf(instance.name, now).row.instance, answers.agreed, answers.partial, answers.differing});
    batch_.bytes += sizeof(RunComparison);
}

void StoreIntake::line(StreamKind kind, std::string_view line, const InstanceState& instance, char separator,
                       std::int64_t now) {
    if (kind != StreamKind::kData && kind != StreamKind::kAutoSensor) return;
    Feed& feed = feedOf(instance.name, now);
    LinkRow& link = linkOf(feed, now);
    link.bytes += static_cast<std::int64_t>(line.size()) + 1;
    if (line.empty()) return;
    if (kind == StreamKind::kData) {
        ++link.records;
        dataLine(line, feed, instance, now);
    } else {
        ++link.monitorRecords;
        monitor(line, feed, instance, separator, now);
    }
    if (batch_.bytes >= kLargeBatch) flush(now);
}

void StoreIntake::dataLine(std::string_view line, Feed& feed, const InstanceState& instance,
                           std::int64_t now) {
    std::string_view rest = line;
    std::int64_t number = 0, flowpath = 0;
    if (!readNumber(takeUntil(rest, ','), number)) {
        ++linkOf(feed, now).unreadable;
    } else if (number == 2) {
        begin(rest, line, feed, now);
    } else if (number == 4) {
        end(rest, line, feed, instance, now);
    } else if (isOneOf(kKeptRecords, number)) {
        if (readFlowpath(rest.substr(0, rest.find(',')), flowpath))
            keep(openOf(feed, flowpath, now), line);
        else
            ++linkOf(feed, now).unreadable;
    } else if (isOneOf(kNameRecords, number)) {
        name(static_cast<int>(number), rest, feed);
    } else if (number == 10) {
        forgetOpen(feed, now);
    }
}

// "id,name", of 5 "name,id".
void StoreIntake::name(int number, std::string_view rest, Feed& feed) {
    const std::size_t comma = number == 5 ? rest.rfind(',') : rest.find(',');
    if (comma == std::string_view::npos) return;
    const std::string_view before = rest.substr(0, comma), behind = rest.substr(comma + 1);
    std::int64_t id = 0;
    if (!readNumber(number == 5 ? behind : before, id) || id < 0 || id > kMaxId) return;
    const std::string_view text = number == 5 ? before : behind;
    const std::size_t hash = std::hash<std::string_view>()(text);

    // Names go with their instance: the store has to know it first.
    if (feed.names.empty()) putInstance(feed);
    const auto [known, added] = feed.names.try_emplace(nameKey(number, id), hash);
    if (!added && known->second == hash) return;
    known->second = hash;
    batch_.names.push_back({feed.row.instance, number, id, nextId_, std::string(text)});
    batch_.bytes += bytesOf(batch_.names.back());
}

StoreIntake::Open& StoreIntake::openOf(Feed& feed, std::int64_t flowpath, std::int64_t now) {
    const auto [found, added] = feed.open.try_emplace(flowpath);
    if (!added) return found->second;
    found->second.since = vxlb_steady_ms();
    found->second.age = ages_.emplace(ages_.end(), &feed, flowpath);
    openBytes_ += sizeof(Open);
    makeRoom(now);  // never takes the youngest
    return found->second;
}

void StoreIntake::keep(Open& open, std::string_view line) {
    if (open.cut) return;
    open.cut = open.lines.size() + line.size() > kMostLines;
    if (open.cut) line = kCutLine;
    open.lines.append(line).append("\n");
    openBytes_ += line.size() + 1;
}

void StoreIntake::forget(Feed& feed, std::unordered_map<std::int64_t, Open>::iterator at) {
    openBytes_ -= sizeof(Open) + at->second.lines.size() + textsOf(at->second.row);
    ages_.erase(at->second.age);
    feed.open.erase(at);
}

void StoreIntake::forgetOpen(Feed& feed, std::int64_t now) {
    while (!feed.open.empty()) {
        linkOf(feed, now).incomplete += feed.open.begin()->second.begun;
        forget(feed, feed.open.begin());
    }
}

// The oldest give way while there are too many, or when they are too old.
void StoreIntake::makeRoom(std::int64_t now) {
    while (ages_.size() > 1) {
        auto [feed, flowpath] = ages_.front();
        const auto at = feed->open.find(flowpath);
        if (openBytes_ <= kMostOpenBytes && vxlb_steady_ms() - at->second.since < kOpenFor) return;
        linkOf(*feed, now).incomplete += at->second.begun;
        forget(*feed, at);
    }
}

void StoreIntake::begin(std::string_view rest, std::string_view line, Feed& feed, std::int64_t now) {
    HeaderRecord header{};
    if (!readHeader(rest, header)) {
        ++linkOf(feed, now).unreadable;
        return;
    }
    Open& open = openOf(feed, header.flowpath, now);
    keep(open, line);
    open.begun = true;
    TransactionRow& row = open.row;
    openBytes_ -= textsOf(row);  // of an earlier beginning
    row.start = feed.row.epochMs + std::clamp(header.startRelMs, -kMostMs * 100, kMostMs * 100);
    row.url = header.url;
    row.session = header.session;
    row.page = header.page;
    row.parent = header.parent;
    row.previous = header.previous;
    row.correlation = header.correlation;
    row.traceId = header.traceId;
    row.callerSpan = header.callerSpan;
    openBytes_ += textsOf(row);
}

void StoreIntake::end(std::string_view rest, std::string_view line, Feed& feed, const InstanceState& instance,
                      std::int64_t now) {
    EndRecord end{};
    if (!readEnd(rest, end)) {
        ++linkOf(feed, now).unreadable;
        return;
    }
    StoredTransaction stored;
    bool begun = false;
    if (const auto open = feed.open.find(end.flowpath); open != feed.open.end()) {
        begun = open->second.begun;
        openBytes_ -= open->second.lines.size() + textsOf(open->second.row);
        stored.row = std::exchange(open->second.row, {});
        stored.lines = std::exchange(open->second.lines, {});
        forget(feed, open);
    }
    TransactionRow& row = stored.row;
    row.instance = feed.row.instance;
    row.flowpath = end.flowpath;
    row.duration = end.durationMs;
    row.at = begun ? row.start + row.duration : now;
    if (row.at < now - kDayMs || row.at > now + kDayMs) row.at = now;  // no clock that could be believed
    row.start = row.at - row.duration;
    row.cpu = end.cpu;
    row.status = end.status;
    row.category = end.category;
    row.endReason = end.endReason;
    row.bt = nameOf(instance.bts, end.bt, "BT");
    if (end.takenBack()) {
        if (!sums_.addDiscarded({Monitored::kBt, row.instance, row.at, row.bt})) ++lostSums_;
        return;
    }
    row.id = nextId_++;
    stored.lines.append(line).append("\n");
    add(Monitored::kBt, row, row.bt, oneOf(row.duration, static_cast<int>(row.category)),
        row.duration * 1000);
    items(stored, instance, feed);
    batch_.bytes += bytesOf(stored);
    batch_.transactions.push_back(std::move(stored));
}

// Sums, callouts and exceptions out of the lines.
void StoreIntake::items(StoredTransaction& stored, const InstanceState& instance, const Feed& feed) {
    std::string_view lines = stored.lines;
    while (!lines.empty()) {
        std::string_view rest = takeUntil(lines, '\n');
        const std::string_view number = takeUntil(rest, ',');
        EndRecord end{};
        if (number == "3") {
            takeUntil(rest, ',');
            sequence(rest, stored, instance);
        } else if (number == "4" && readEnd(rest, end)) {
            sequence(end.blob, stored, instance);
        } else if (number == "38") {
            exception(rest, stored, instance, feed);
        }
    }
}

void StoreIntake::sequence(std::string_view blob, StoredTransaction& stored, const InstanceState& instance) {
    BlobItem item{};
    while (!blob.empty()) {
        if (!takeBlobItem(blob, item)) {
            takeUntil(blob, '_');  // a text with the mark of an item's end in it
        } else if (item.kind == BlobItem::Kind::kExit) {
            add(Monitored::kMethod, stored.row, nameOf(instance.methods, item.methodId, "method"),
                oneOf(item.ms), item.ms * 1000);
        } else if (item.kind == BlobItem::Kind::kCallout) {
            callout(item, stored, instance);
        }
    }
}

void StoreIntake::callout(const BlobItem& item, StoredTransaction& stored, const InstanceState& instance) {
    TransactionRow& tx = stored.row;
    StoredCallout& row = addItem(batch_.callouts, tx, tx.callouts++);
    row.backend = plainName(nameOf(instance.methods, item.methodId, "back-end"));
    row.target = targetText(item.target);
    row.us = item.us;
    row.failed = item.failed;
    row.status = item.status;
    Figures figures = oneOf(item.us / 1000);
    figures.error = item.failed;
    add(Monitored::kBackend, tx, row.backend, figures, item.us);
    batch_.bytes += bytesOf(row);
}

void StoreIntake::exception(std::string_view rest, StoredTransaction& stored, const InstanceState& instance,
                            const Feed& feed) {
    TransactionException thrown;
    if (!readException(rest, feed.row.epochMs, lookupOf(instance), thrown)) return;
    TransactionRow& tx = stored.row;
    StoredException& row = addItem(batch_.exceptions, tx, tx.exceptions++);
    row.name = std::move(thrown.name);
    row.place = exceptionText(thrown.throwingClass, thrown.throwingMethod, thrown.message, thrown.cause);
    row.stack = std::move(thrown.stack);
    add(Monitored::kException, tx, row.name, oneOf(0), 0);
    batch_.bytes += bytesOf(row);
}

void StoreIntake::add(Monitored kind, const TransactionRow& in, std::string_view name, const Figures& figures,
                      std::int64_t us) {
    if (!sums_.add({kind, in.instance, in.at, name}, figures, us)) ++lostSums_;
}

void StoreIntake::monitor(std::string_view line, Feed& feed, const InstanceState& instance, char separator,
                          std::int64_t now) {
    MonitorReport report;
    const ReportRead answer = readReport(line, separator, report);
    if (answer == ReportRead::kUnreadable) ++linkOf(feed, now).unreadable;
    if (answer != ReportRead::kRead || report.overall) return;
    StoredMonitor& row = batch_.monitors.emplace_back();
    row.at = now;
    row.instance = feed.row.instance;
    row.kind = static_cast<std::int64_t>(report.kind);
    const bool all = report.kind == Monitored::kBt && report.id == kAllTransactions;
    row.name = all ? std::string(kAllName) : reportedName(instance, report);
    row.figures = report.figures;
    row.line = line;
    batch_.bytes += sizeof(row) + row.name.size() + row.line.size();
}

void StoreIntake::putInstance(Feed& feed) {
    feed.told = feed.row.lastAt;
    batch_.instances.push_back(feed.row);
    batch_.bytes += sizeof(InstanceRow) + feed.row.app.size() + feed.row.tier.size();
}

void StoreIntake::gather(std::int64_t now) {
    gathered_ = now;
    for (auto& [name, feed] : feeds_) {
        putLink(feed);
        if (!feed.told || feed.row.lastAt >= feed.told + kInstanceEvery) putInstance(feed);
    }
    sums_.take(batch_);
}

void StoreIntake::flush(std::int64_t now, bool last) {
    const bool due = last || now >= flushed_ + kFlushEvery || now < flushed_;
    if (!due && batch_.bytes < stayed_ + kLargeBatch) return;
    flushed_ = now;
    if (!ages_.empty()) makeRoom(now);
    if (!queue_.hasRoom(batch_.bytes + sums_.bytes())) {
        dropTransactions();
        if (batch_.bytes > kMostPending) dropRest();
        stayed_ = batch_.bytes;
        if (!last) return;
    }
    stayed_ = 0;
    if (last || now >= gathered_ + kGatherEvery || now < gathered_) gather(now);
    if (!batch_.empty()) queue_.put(std::exchange(batch_, {}));
}

// What adds up has been counted: only what there is to click on is lost.
void StoreIntake::dropTransactions() {
    std::size_t bytes = 0;
    std::unordered_map<std::int64_t, std::int64_t> ofInstance;
    for (const StoredTransaction& stored : batch_.transactions) {
        bytes += bytesOf(stored);
        ++ofInstance[stored.row.instance];
    }
    for (auto& [name, feed] : feeds_)
        if (const auto count = ofInstance.find(feed.row.instance); count != ofInstance.end())
            feed.link.dropped += count->second;
    for (const StoredCallout& row : batch_.callouts) bytes += bytesOf(row);
    for (const StoredException& row : batch_.exceptions) bytes += bytesOf(row);
    dropped_.fetch_add(batch_.transactions.size(), std::memory_order_relaxed);
    batch_.bytes -= bytes;
    batch_.transactions.clear();
    batch_.callouts.clear();
    batch_.exceptions.clear();
}

// Nothing could be written for long. What the monitors told goes; what counts losses is small once it is
// added up, and names are told once: both stay as long as they are no more than half of what may wait.
void StoreIntake::dropRest() {
    std::map<std::int64_t, LinkRow> links;
    for (const LinkRow& row : batch_.links)
        links.try_emplace(row.instance, LinkRow{row.at, row.instance}).first->second.add(row);
    Batch kept;
    for (const auto& [instance, row] : links) kept.links.push_back(row);
    kept.bytes = kept.links.size() * sizeof(LinkRow);
    for (const StoredName& name : batch_.names) kept.bytes += bytesOf(name);
    const bool namesStay = kept.bytes <= kMostPending / 2;
    if (namesStay) kept.names = std::move(batch_.names);
    if (!namesStay) kept.bytes = kept.links.size() * sizeof(LinkRow);
    batch_ = std::move(kept);
    for (auto& [name, feed] : feeds_) {
        if (!namesStay) feed.names.clear();
        feed.told = 0;
    }
}

}  // namespace vx::collector
