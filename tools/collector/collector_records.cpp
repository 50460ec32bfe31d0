#include "tools/collector/collector_records.h"

#include <algorithm>
#include <array>

#include "tools/collector/collector_capture.h"

namespace vx::collector {

namespace {

void takeCallout(const BlobItem& item, InstanceState& instance, Summary& summary) {
    BackendRow& row = backendRow(summary, plainName(nameOf(instance.methods, item.methodId, "back-end")));
    row.target = targetText(item.target);
    ++row.count;
    if (item.failed) ++row.errors;
    addUpTo(row.totalUs, item.us);
    row.maxUs = std::max(row.maxUs, item.us);
    Figures figures = oneOf(item.us / 1000);
    figures.error = item.failed;
    addSingle(instance.run, Monitored::kBackend, item.methodId, figures);
}

void takeBlob(std::string_view blob, InstanceState& instance, Summary& summary) {
    BlobItem item{};
    while (takeBlobItem(blob, item)) {
        if (item.kind == BlobItem::Kind::kEntry) {
            ++methodRow(summary, nameOf(instance.methods, item.methodId, "method")).entries;
        } else if (item.kind == BlobItem::Kind::kExit) {
            MethodRow& row = methodRow(summary, nameOf(instance.methods, item.methodId, "method"));
            ++row.exits;
            row.totalMs += item.ms;
            row.maxMs = std::max(row.maxMs, item.ms);
            addSingle(instance.run, Monitored::kMethod, item.methodId, oneOf(item.ms));
        } else if (item.kind == BlobItem::Kind::kCallout) {
            takeCallout(item, instance, summary);
        }
    }
}

// "7,id,name" and "5,name,id": the name itself may hold commas.
bool takeBtName(std::string_view rest, InstanceState& instance, Summary&) {
    const std::string_view id = takeUntil(rest, ',');
    return setName(instance.bts, id, rest);
}
bool takeMethodName(std::string_view rest, InstanceState& instance, Summary&) {
    const std::size_t comma = rest.rfind(',');
    return comma != std::string_view::npos &&
           setName(instance.methods, rest.substr(comma + 1), rest.substr(0, comma));
}

// "6,id,name": a header, or a value that stands in records as an id
bool takeHeaderName(std::string_view rest, InstanceState& instance, Summary&) {
    const std::string_view id = takeUntil(rest, ',');
    return setName(instance.headers, id, rest);
}

// Only for what is shown of single transactions.
bool takeHeader(std::string_view rest, InstanceState& instance, Summary& summary) {
    HeaderRecord header;
    if (!readHeader(rest, header)) return false;
    if (KeptTransaction* kept = summary.kept.find(header.flowpath)) {
        kept->bt = nameOf(instance.bts, header.bt, "BT");
        kept->url = header.url;
    }
    return true;
}

// "3,instance,blob"
bool takePartial(std::string_view rest, InstanceState& instance, Summary& summary) {
    std::int64_t flowpath = 0;
    if (!readNumber(takeUntil(rest, ','), flowpath)) return false;
    takeBlob(rest, instance, summary);
    return true;
}

// What was kept of the transaction gets its end, and its exceptions the BT that they came in.
void endKept(KeptTransaction& kept, const std::string& bt, const EndRecord& end, Summary& summary) {
    kept.ended = true;
    kept.bt = bt;
    kept.status = static_cast<int>(end.status);
    kept.category = static_cast<int>(end.category);
    kept.durationMs = end.durationMs;
    for (const KeptException& thrown : kept.exceptions) {
        auto& bts = exceptionRow(summary, thrown.name).bts;
        if (bts.size() < kMaxBtsOfException || bts.contains(bt)) ++bts[bt];
    }
}

bool takeEnd(std::string_view rest, InstanceState& instance, Summary& summary) {
    EndRecord end;
    if (!readEnd(rest, end)) return false;
    const std::string bt = nameOf(instance.bts, end.bt, "BT");
    BtRow& row = btRow(summary, bt);
    const Figures figures = oneOf(end.durationMs, static_cast<int>(end.category));
    if (end.category != kTakenBack) {  // one that only its status takes back is in the monitor
        addSingle(instance.run, Monitored::kBt, end.bt, figures);
        addSingle(instance.run, Monitored::kBt, kAllTransactions, figures);
    }
    if (end.takenBack()) {
        ++row.discarded;
        return true;
    }
    ++summary.transactions;
    row.add(figures);
    summary.all.add(figures);
    if (KeptTransaction* kept = summary.kept.find(end.flowpath)) endKept(*kept, bt, end, summary);
    takeBlob(end.blob, instance, summary);
    return true;
}

bool takeRunEnd(std::string_view, InstanceState& instance, Summary&) {
    instance.run.over = true;
    return true;
}

// "91,id,tier,own tier,instance,server,own server,own instance,NA": who calls, as its chain says.
bool takeCaller(std::string_view rest, InstanceState&, Summary& summary) {
    enum { kId, kTier, kOwnTier, kInstance, kServer, kFields };
    std::array<std::string_view, kFields> field;
    for (std::string_view& text : field) {
        if (rest.empty()) return false;
        text = takeUntil(rest, ',');
    }
    std::string name(field[kTier]);
    name.append("/").append(field[kServer]).append("/").append(field[kInstance]).append(" (");
    name.append(field[kId]).append(") -> ").append(field[kOwnTier]);
    ++callerRow(summary, name).announced;
    return true;
}

struct RecordRow {
    int number;
    bool (*take)(std::string_view rest, InstanceState& instance, Summary& summary);
};
constexpr auto kRecords = std::to_array<RecordRow>({
    {2, takeHeader},
    {3, takePartial},
    {4, takeEnd},
    {5, takeMethodName},
    {6, takeHeaderName},
    {7, takeBtName},
    {10, takeRunEnd},
    {12, takeRequestHeaders},
    {13, takeResponseHeaders},
    {32, takeExceptionPart<ExceptionPart::kClass>},
    {33, takeExceptionPart<ExceptionPart::kThrowingClass>},
    {34, takeExceptionPart<ExceptionPart::kThrowingMethod>},
    {35, takeExceptionPart<ExceptionPart::kMessage>},
    {36, takeExceptionPart<ExceptionPart::kCause>},
    {38, takeException},
    {91, takeCaller},
});

// "T4:7:1.500:10:-:3::::200:parameters_" behind its letter: number, back-end, milliseconds with three
// decimals, target, query, start; then the status, of a failed one in front of the three further fields.
bool takeCalloutItem(std::string_view& rest, BlobItem& item) {
    std::string_view text = takeUntil(rest, '_');
    std::int64_t ms = 0, fraction = 0;
    if (!takeNumber(text, item.seq) || !takeChar(text, ':') || !takeNumber(text, item.methodId) ||
        !takeChar(text, ':') || !takeNumber(text, ms) || !takeChar(text, '.') ||
        !takeNumber(text, fraction) || !takeChar(text, ':') || !takeNumber(text, item.target))
        return false;
    item.us = std::clamp<std::int64_t>(ms, 0, kMostMs) * 1000 + std::clamp<std::int64_t>(fraction, 0, 999);
    takeChar(text, ':');
    item.query = takeUntil(text, ':');
    readNumber(takeUntil(text, ':'), item.ms);
    std::string_view fields[4];
    for (std::string_view& field : fields) field = takeUntil(text, ':');
    readNumber(fields[item.failed ? 0 : 3], item.status);
    item.text = text;
    return true;
}

// "e7_", "T..._" and "E..._"
bool takeMarkedItem(std::string_view& rest, BlobItem& item) {
    const char mark = rest.front();
    item.kind = mark == 'e' ? BlobItem::Kind::kException : BlobItem::Kind::kCallout;
    item.failed = mark == 'E';
    rest.remove_prefix(1);
    if (mark != 'e') return takeCalloutItem(rest, item);
    readNumber(takeUntil(rest, '_'), item.seq);
    return true;
}

// "7:77_0_3__", "7:77:1:/url_0_3__", "7:77_1_12____", "7:77_1_40_5___"
bool takeMethodItem(std::string_view& rest, BlobItem& item) {
    std::int64_t direction = 0, sequence = 0;
    if (!takeNumber(rest, item.methodId) || !takeChar(rest, ':') || !takeNumber(rest, item.thread))
        return false;
    if (takeChar(rest, ':')) {  // "1:url": the item's own fields stand behind the text's last "_0_"
        const char* const end = rest.data() + rest.size();
        if (!item.mark || item.mark < rest.data())
            item.mark = rest.data() + std::min(rest.find("_0_"), rest.size());
        if (item.mark == end) return false;
        const auto length = static_cast<std::size_t>(item.mark - rest.data());
        item.text = rest.substr(0, length);
        takeUntil(item.text, ':');
        rest.remove_prefix(length);
    }
    if (!takeChar(rest, '_') || !takeNumber(rest, direction)) return false;
    if (takeChar(rest, ':') && !takeNumber(rest, sequence)) return false;
    if (!takeChar(rest, '_') || !takeNumber(rest, item.ms) || !takeChar(rest, '_')) return false;
    takeNumber(rest, item.cpu);
    while (takeChar(rest, '_')) {
    }
    item.ms = std::clamp<std::int64_t>(item.ms, 0, kMostMs);
    item.kind = direction == 0 ? BlobItem::Kind::kEntry : BlobItem::Kind::kExit;
    return true;
}

}  // namespace

const char* targetText(std::int64_t target) {
    switch (target) {
        case 1:
            return "HTTP";
        case 8:
            return "custom";
        case 13:
            return "MQ";
        default:
            return "DB";
    }
}

bool takeBlobItem(std::string_view& blob, BlobItem& item) {
    std::string_view rest = blob;
    if (rest.empty()) return false;
    const char* const mark = item.mark;
    item = {};
    item.mark = mark;
    const bool marked = rest.front() == 'T' || rest.front() == 'E' || rest.front() == 'e';
    if (!(marked ? takeMarkedItem(rest, item) : takeMethodItem(rest, item))) return false;
    blob = rest;
    return true;
}

bool readHeader(std::string_view rest, HeaderRecord& header) {
    // Fields behind the URL, from the last one on.
    enum { kStartRel, kFlags, kSpan, kTrace, kStartArgument, kEndReason, kEmpty, kPage, kSession, kParent };
    header = {};
    std::string_view identity = takeUntil(rest, ',');
    if (!readNumber(takeUntil(identity, ':'), header.flowpath)) return false;
    readNumber(takeUntil(identity, ':'), header.previous);
    for (int passed = 0; passed < 3; ++passed) takeUntil(rest, ',');
    if (!readNumber(takeUntil(rest, ','), header.bt)) return false;
    std::array<std::string_view, kParent + 1> field;
    for (std::string_view& text : field) {
        const std::size_t comma = rest.rfind(',');
        if (comma == std::string_view::npos) return false;
        text = rest.substr(comma + 1);
        rest.remove_suffix(rest.size() - comma);
    }
    const std::size_t comma = rest.rfind(',');
    if (comma == std::string_view::npos) return false;
    header.url = rest.substr(0, comma);
    header.correlation = rest.substr(comma + 1);
    readNumber(field[kParent], header.parent);
    readNumber(field[kPage], header.page);
    header.session = field[kSession];
    header.traceId = field[kTrace];
    header.callerSpan = field[kSpan];
    return readNumber(field[kStartRel], header.startRelMs);
}

bool readEnd(std::string_view rest, EndRecord& end) {
    enum { kFlowpath, kStatus, kCategory, kCpu, kDuration, kBt, kEndReason, kFields };
    std::array<std::int64_t, kFields> field{};
    for (std::int64_t& value : field)
        if (!readNumber(takeUntil(rest, ','), value)) return false;
    end.flowpath = field[kFlowpath];
    end.status = field[kStatus];
    end.category = field[kCategory];
    end.cpu = field[kCpu];
    end.durationMs = std::clamp<std::int64_t>(field[kDuration], 0, kMostMs);
    end.bt = field[kBt];
    end.endReason = field[kEndReason];
    takeUntil(rest, ',');
    takeUntil(rest, ',');
    std::string_view behindTag = rest;  // a tag id may stand in front of the blob
    std::int64_t tag = 0;
    if (takeNumber(behindTag, tag) && takeChar(behindTag, ',')) rest = behindTag;
    end.blob = rest;
    return true;
}

void takeRecord(std::string_view line, InstanceState& instance, Summary& summary) {
    if (line.empty()) return;
    std::string_view rest = line;
    std::int64_t number = 0;
    if (!readNumber(takeUntil(rest, ','), number) || number < 1 || number > 999) {
        ++summary.unreadable;
        return;
    }
    for (const RecordRow& row : kRecords)
        if (row.number == number && !row.take(rest, instance, summary)) {
            ++summary.unreadable;
            return;
        }
    ++summary.records;
    ++summary.byNumber[static_cast<int>(number)];
}

}  // namespace vx::collector
