#include "tools/collector/collector_records.h"

#include <algorithm>
#include <array>

#include "tools/collector/collector_capture.h"

namespace vx::collector {

namespace {

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

void takeCallout(const BlobItem& item, InstanceState& instance, Summary& summary) {
    BackendRow& row = backendRow(summary, plainName(nameOf(instance.methods, item.methodId, "back-end")));
    row.target = targetText(item.target);
    ++row.count;
    if (item.failed) ++row.errors;
    row.totalUs += item.us;
    row.maxUs = std::max(row.maxUs, item.us);
    Figures figures = oneOf(item.us / 1000);
    figures.error = item.failed;
    addSingle(instance.run, Monitored::kBackend, item.methodId, figures);
}

void takeBlob(std::string_view blob, InstanceState& instance, Summary& summary) {
    BlobItem item;
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

// "2,instance,start,thread,thread.1,bt,url,...": only for what is shown of single transactions.
bool takeHeader(std::string_view rest, InstanceState& instance, Summary& summary) {
    std::int64_t flowpath = 0, bt = 0;
    if (!readFlowpath(takeUntil(rest, ','), flowpath)) return false;
    for (int passed = 0; passed < 3; ++passed) takeUntil(rest, ',');
    if (!readNumber(takeUntil(rest, ','), bt)) return false;
    if (KeptTransaction* kept = summary.kept.find(flowpath)) {
        kept->bt = nameOf(instance.bts, bt, "BT");
        kept->url = takeUntil(rest, ',');
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

// "4,instance,status,category,cpu,duration,bt,endReason,,endField[,tag],blob"
enum { kFlowpath, kStatus, kCategory, kCpu, kDuration, kBt, kEndReason, kEndFields };
using EndFields = std::array<std::int64_t, kEndFields>;

// What was kept of the transaction gets its end, and its exceptions the BT that they came in.
void endKept(KeptTransaction& kept, const std::string& bt, const EndFields& field, Summary& summary) {
    kept.ended = true;
    kept.bt = bt;
    kept.status = static_cast<int>(field[kStatus]);
    kept.category = static_cast<int>(field[kCategory]);
    kept.durationMs = field[kDuration];
    for (const KeptException& thrown : kept.exceptions) {
        auto& bts = exceptionRow(summary, thrown.name).bts;
        if (bts.size() < kMaxBtsOfException || bts.contains(bt)) ++bts[bt];
    }
}

bool takeEnd(std::string_view rest, InstanceState& instance, Summary& summary) {
    constexpr std::int64_t kTakenBack = -99;
    EndFields field{};
    for (std::int64_t& value : field)
        if (!readNumber(takeUntil(rest, ','), value)) return false;
    const std::string bt = nameOf(instance.bts, field[kBt], "BT");
    BtRow& row = btRow(summary, bt);
    const Figures figures = oneOf(field[kDuration], static_cast<int>(field[kCategory]));
    if (field[kCategory] != kTakenBack) {  // one that only its status takes back is in the monitor
        addSingle(instance.run, Monitored::kBt, field[kBt], figures);
        addSingle(instance.run, Monitored::kBt, kAllTransactions, figures);
    }
    if (field[kStatus] == kTakenBack || field[kCategory] == kTakenBack) {
        ++row.discarded;
        return true;
    }
    ++summary.transactions;
    row.add(figures);
    summary.all.add(figures);
    if (KeptTransaction* kept = summary.kept.find(field[kFlowpath])) endKept(*kept, bt, field, summary);
    takeUntil(rest, ',');
    takeUntil(rest, ',');
    std::string_view behindTag = rest;  // a tag id may stand in front of the blob
    std::int64_t tag = 0;
    if (takeNumber(behindTag, tag) && takeChar(behindTag, ',')) rest = behindTag;
    takeBlob(rest, instance, summary);
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

// "T4:7:1.500:10:-:3::::200_" behind its letter: number, back-end, milliseconds with three decimals, target.
bool takeCalloutItem(std::string_view& rest, BlobItem& item) {
    std::string_view text = takeUntil(rest, '_');
    std::int64_t number = 0, ms = 0, fraction = 0;
    if (!takeNumber(text, number) || !takeChar(text, ':') || !takeNumber(text, item.methodId) ||
        !takeChar(text, ':') || !takeNumber(text, ms) || !takeChar(text, '.') ||
        !takeNumber(text, fraction) || !takeChar(text, ':') || !takeNumber(text, item.target))
        return false;
    item.us = ms * 1000 + fraction;
    return true;
}

}  // namespace

bool takeBlobItem(std::string_view& blob, BlobItem& item) {
    std::string_view rest = blob;
    if (rest.empty()) return false;
    const char first = rest.front();
    item = {};
    if (first == 'T' || first == 'E' || first == 'e') {
        item.kind = first == 'e' ? BlobItem::Kind::kException : BlobItem::Kind::kCallout;
        item.failed = first == 'E';
        rest.remove_prefix(1);
        if (first == 'e') {
            takeUntil(rest, '_');
        } else if (!takeCalloutItem(rest, item)) {
            return false;
        }
        blob = rest;
        return true;
    }
    std::int64_t thread = 0, direction = 0, sequence = 0, cpu = 0;
    if (!takeNumber(rest, item.methodId) || !takeChar(rest, ':') || !takeNumber(rest, thread)) return false;
    if (takeChar(rest, ':')) {  // "1:url": the item's own fields stand behind the text's last "_0_"
        const std::size_t end = rest.find("_0_");
        if (end == std::string_view::npos) return false;
        rest.remove_prefix(end);
    }
    if (!takeChar(rest, '_') || !takeNumber(rest, direction)) return false;
    if (takeChar(rest, ':') && !takeNumber(rest, sequence)) return false;
    if (!takeChar(rest, '_') || !takeNumber(rest, item.ms) || !takeChar(rest, '_')) return false;
    takeNumber(rest, cpu);
    while (takeChar(rest, '_')) {
    }
    item.kind = direction == 0 ? BlobItem::Kind::kEntry : BlobItem::Kind::kExit;
    blob = rest;
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
