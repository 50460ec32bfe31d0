#include "tools/collector/collector_records.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace vx::collector {

namespace {

// Takes the text up to `end` from the front of `rest`; without one, all of it.
std::string_view takeUntil(std::string_view& rest, char end) {
    const std::size_t at = rest.find(end);
    const std::string_view taken = rest.substr(0, at);
    rest = at == std::string_view::npos ? std::string_view() : rest.substr(at + 1);
    return taken;
}

// A whole decimal number; a trailing "F" (a forced flowpath) is passed over.
bool readNumber(std::string_view text, std::int64_t& out) {
    if (!text.empty() && text.back() == 'F') text.remove_suffix(1);
    const auto done = std::from_chars(text.data(), text.data() + text.size(), out);
    return done.ec == std::errc() && done.ptr == text.data() + text.size();
}

// Takes a number from the front of `rest`; false leaves it.
bool takeNumber(std::string_view& rest, std::int64_t& out) {
    const auto done = std::from_chars(rest.data(), rest.data() + rest.size(), out);
    if (done.ec != std::errc()) return false;
    rest.remove_prefix(static_cast<std::size_t>(done.ptr - rest.data()));
    return true;
}

bool takeChar(std::string_view& rest, char wanted) {
    if (rest.empty() || rest.front() != wanted) return false;
    rest.remove_prefix(1);
    return true;
}

std::string nameOf(const std::unordered_map<std::int64_t, std::string>& names, std::int64_t id,
                   const char* kind) {
    const auto found = names.find(id);
    return found != names.end() ? found->second : std::string(kind) + " " + std::to_string(id);
}

// A name as the agent gave it: "&#46;" and the like are undone.
std::string unescaped(const std::string& name) {
    std::string out;
    for (std::size_t at = 0; at < name.size(); ++at) {
        std::string_view rest = std::string_view(name).substr(at);
        std::int64_t code = 0;
        if (rest.starts_with("&#") && (rest.remove_prefix(2), takeNumber(rest, code)) &&
            takeChar(rest, ';') && code >= ' ' && code < 127) {
            out += static_cast<char>(code);
            at = name.size() - rest.size() - 1;
        } else {
            out += name[at];
        }
    }
    return out;
}

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

void takeCallout(const BlobItem& item, const InstanceNames& names, Summary& summary) {
    BackendRow& row = backendRow(summary, unescaped(nameOf(names.methods, item.methodId, "back-end")));
    row.target = targetText(item.target);
    ++row.count;
    if (item.failed) ++row.errors;
    row.totalUs += item.us;
    row.maxUs = std::max(row.maxUs, item.us);
}

void takeBlob(std::string_view blob, const InstanceNames& names, Summary& summary) {
    BlobItem item;
    while (takeBlobItem(blob, item)) {
        if (item.kind == BlobItem::Kind::kEntry) {
            ++methodRow(summary, nameOf(names.methods, item.methodId, "method")).entries;
        } else if (item.kind == BlobItem::Kind::kExit) {
            MethodRow& row = methodRow(summary, nameOf(names.methods, item.methodId, "method"));
            ++row.exits;
            row.totalMs += item.ms;
            row.maxMs = std::max(row.maxMs, item.ms);
        } else if (item.kind == BlobItem::Kind::kCallout) {
            takeCallout(item, names, summary);
        }
    }
}

// "7,id,name" and "5,name,id": the name itself may hold commas.
bool takeBtName(std::string_view rest, InstanceNames& names, Summary&) {
    std::int64_t id = 0;
    if (!readNumber(takeUntil(rest, ','), id) || id < 0 || id > kMaxId) return false;
    names.bts[id] = rest;
    return true;
}
bool takeMethodName(std::string_view rest, InstanceNames& names, Summary&) {
    const std::size_t comma = rest.rfind(',');
    std::int64_t id = 0;
    if (comma == std::string_view::npos || !readNumber(rest.substr(comma + 1), id) || id < 0 || id > kMaxId)
        return false;
    names.methods[id] = rest.substr(0, comma);
    return true;
}

// "3,instance,blob"
bool takePartial(std::string_view rest, InstanceNames& names, Summary& summary) {
    std::int64_t flowpath = 0;
    if (!readNumber(takeUntil(rest, ','), flowpath)) return false;
    takeBlob(rest, names, summary);
    return true;
}

// "4,instance,status,category,cpu,duration,bt,endReason,,endField[,tag],blob"
bool takeEnd(std::string_view rest, InstanceNames& names, Summary& summary) {
    enum { kFlowpath, kStatus, kCategory, kCpu, kDuration, kBt, kEndReason, kFields };
    std::array<std::int64_t, kFields> field{};
    for (std::int64_t& value : field)
        if (!readNumber(takeUntil(rest, ','), value)) return false;
    BtRow& row = btRow(summary, nameOf(names.bts, field[kBt], "BT"));
    if (field[kStatus] == -99 || field[kCategory] == -99) {
        ++row.discarded;
        return true;
    }
    addTransaction(summary, row, static_cast<int>(field[kCategory]), field[kDuration]);
    takeUntil(rest, ',');
    takeUntil(rest, ',');
    std::string_view behindTag = rest;  // a tag id may stand in front of the blob
    std::int64_t tag = 0;
    if (takeNumber(behindTag, tag) && takeChar(behindTag, ',')) rest = behindTag;
    takeBlob(rest, names, summary);
    return true;
}

// "91,id,tier,own tier,instance,server,own server,own instance,NA": who calls, as its chain says.
bool takeCaller(std::string_view rest, InstanceNames&, Summary& summary) {
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
    bool (*take)(std::string_view rest, InstanceNames& names, Summary& summary);
};
constexpr auto kRecords = std::to_array<RecordRow>({
    {3, takePartial},
    {4, takeEnd},
    {5, takeMethodName},
    {7, takeBtName},
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

void takeRecord(std::string_view line, InstanceNames& names, Summary& summary) {
    if (line.empty()) return;
    std::string_view rest = line;
    std::int64_t number = 0;
    if (!readNumber(takeUntil(rest, ','), number) || number < 1 || number > 999) {
        ++summary.unreadable;
        return;
    }
    for (const RecordRow& row : kRecords)
        if (row.number == number && !row.take(rest, names, summary)) {
            ++summary.unreadable;
            return;
        }
    ++summary.records;
    ++summary.byNumber[static_cast<int>(number)];
}

}  // namespace vx::collector
