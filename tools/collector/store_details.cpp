#include "tools/collector/store_details.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "tools/collector/collector_capture.h"
#include "tools/collector/collector_records.h"

namespace vx::collector {

namespace {

// What is missing is named by its id, as elsewhere.
std::string nameOr(const NameLookup& nameOf, NameKind kind, std::int64_t id, const char* what) {
    std::string name = nameOf(kind, id);
    return name.empty() ? std::string(what) + " " + std::to_string(id) : name;
}

constexpr double kRounding = 1;  // ms

// Builds the tree while items come in the order of the records.
class Tree {
public:
    Tree(const NameLookup& nameOf, TransactionDetails& out) : nameOf_(nameOf), out_(out) {}

    void take(std::string_view blob) {
        BlobItem item{};
        while (!blob.empty() && !out_.cut) {
            if (takeBlobItem(blob, item)) {
                add(item);
            } else {  // a text with the mark of an item's end in it: the next item stands behind that
                const std::size_t mark = blob.find('_');
                blob.remove_prefix(mark == std::string_view::npos ? blob.size() : mark + 1);
            }
        }
    }
    // What is still open lasts up to the end of the transaction; children leave the rest to their parents.
    void close(double endMs) {
        for (const Open& open : open_) {
            TransactionItem& item = out_.items[open.item];
            item.open = true;
            item.durationMs = std::max(0.0, endMs - item.startMs);
        }
        for (TransactionItem& item : out_.items) item.selfMs = item.durationMs;
        for (const TransactionItem& item : out_.items)
            if (item.parent >= 0) out_.items[static_cast<std::size_t>(item.parent)].selfMs -= item.durationMs;
        for (TransactionItem& item : out_.items) item.selfMs = std::max(0.0, item.selfMs);
    }

private:
    struct Open {
        std::size_t item;
        std::int64_t methodId, thread;
    };

    void add(const BlobItem& item) {
        if (item.kind == BlobItem::Kind::kExit) return exit(item);
        const int behindExit = std::exchange(left_, -1);
        if (out_.items.size() >= kMostItems) {
            out_.cut = true;
            return;
        }
        TransactionItem& added = out_.items.emplace_back();
        const int parent = parentOf(item);
        added.parent = parent;
        added.depth = parent < 0 ? 0 : out_.items[static_cast<std::size_t>(parent)].depth + 1;
        added.startMs = static_cast<double>(item.ms);
        added.seq = item.seq;
        if (item.kind == BlobItem::Kind::kEntry) {
            enter(item, added);
        } else if (item.kind == BlobItem::Kind::kCallout) {
            callOut(item, added, behindExit);
        } else {
            added.kind = TransactionItem::Kind::kException;  // named once its record is found
            added.startMs = lastMs_;
        }
        lastMs_ = std::max(lastMs_, added.startMs + added.durationMs);
    }
    void enter(const BlobItem& item, TransactionItem& added) {
        added.name = nameOr(nameOf_, NameKind::kMethod, item.methodId, "method");
        added.query = item.text;
        open_.push_back({out_.items.size() - 1, item.methodId, item.thread});
    }
    // Its time is that of its end, and its item stands behind the exit of the method that made it.
    void callOut(const BlobItem& item, TransactionItem& added, int behindExit) {
        added.kind = TransactionItem::Kind::kCallout;
        added.name = plainName(nameOr(nameOf_, NameKind::kMethod, item.methodId, "back-end"));
        added.target = targetText(item.target);
        added.durationMs = static_cast<double>(item.us) / 1000;
        if (behindExit >= 0) {
            const TransactionItem& left = out_.items[static_cast<std::size_t>(behindExit)];
            if (std::abs(left.startMs + left.durationMs - added.startMs) <= kRounding &&
                std::abs(left.durationMs - added.durationMs) <= kRounding) {
                added.parent = behindExit;
                added.depth = left.depth + 1;
            }
        }
        added.startMs = std::max(0.0, added.startMs - added.durationMs);
        added.failed = item.failed;
        added.status = item.status;
        if (item.query != "-" && item.query != "0") added.query = item.query;
        if (!item.text.empty()) added.query.append(added.query.empty() ? "" : " ").append(item.text);
    }
    void exit(const BlobItem& item) {
        for (std::size_t at = open_.size(); at-- > 0;) {
            if (open_[at].methodId != item.methodId || open_[at].thread != item.thread) continue;
            TransactionItem& left = out_.items[open_[at].item];
            left.durationMs = static_cast<double>(item.ms);
            left.cpuMs = static_cast<double>(item.cpu);
            lastMs_ = std::max(lastMs_, left.startMs + left.durationMs);
            left_ = static_cast<int>(open_[at].item);
            open_.erase(open_.begin() + static_cast<std::ptrdiff_t>(at));
            return;
        }
    }
    // The innermost open method: of the same thread, where the item has one.
    int parentOf(const BlobItem& item) const {
        if (item.kind == BlobItem::Kind::kEntry)
            for (std::size_t at = open_.size(); at-- > 0;)
                if (open_[at].thread == item.thread) return static_cast<int>(open_[at].item);
        return open_.empty() ? -1 : static_cast<int>(open_.back().item);
    }

    const NameLookup& nameOf_;
    TransactionDetails& out_;
    std::vector<Open> open_;
    int left_ = -1;  // the item whose exit was the latest item
    double lastMs_ = 0;
};

// "3:<text/html>|4:17"
void readHeaders(std::string_view items, const NameLookup& nameOf, std::vector<NameValue>& out) {
    while (!items.empty()) {
        std::string_view item = takeUntil(items, '|');
        std::int64_t id = 0, valueId = 0;
        if (!takeNumber(item, id) || !takeChar(item, ':') || out.size() >= kMostItems) return;
        const bool isText = item.size() > 1 && item.front() == '<' && item.back() == '>';
        if (!isText && !readNumber(item, valueId)) return;
        out.push_back({nameOr(nameOf, NameKind::kHeader, id, "header"),
                       isText ? plainName(item.substr(1, item.size() - 2))
                              : nameOr(nameOf, NameKind::kHeader, valueId, "value")});
    }
}

// "instance,2:method:seq:header:1:<text>|"
void readArgument(std::string_view rest, const NameLookup& nameOf, TransactionDetails& out) {
    std::int64_t method = 0, header = 0;
    takeUntil(rest, ':');
    if (!readNumber(takeUntil(rest, ':'), method)) return;
    takeUntil(rest, ':');
    if (!readNumber(takeUntil(rest, ':'), header)) return;
    takeUntil(rest, ':');
    if (!rest.starts_with('<') || !rest.ends_with(">|") || out.arguments.size() >= kMostItems) return;
    out.arguments.push_back({nameOr(nameOf, NameKind::kMethod, method, "method"),
                             nameOr(nameOf, NameKind::kHeader, header, "header"),
                             std::string(rest.substr(1, rest.size() - 3))});
}

// Items of exceptions get the names that the records with their numbers tell.
void nameExceptions(TransactionDetails& out) {
    for (TransactionItem& item : out.items) {
        if (item.kind != TransactionItem::Kind::kException) continue;
        for (const TransactionException& thrown : out.exceptions)
            if (thrown.seq == item.seq) item.name = thrown.name;
        if (item.name.empty()) item.name = "exception";
    }
}

}  // namespace

bool readException(std::string_view rest, std::int64_t epochMs, const NameLookup& nameOf,
                   TransactionException& out) {
    enum { kTime, kMethod, kSeq, kOne, kTwo, kClass, kThrower, kIn, kNumber, kMessage, kCause, kFields };
    takeUntil(rest, ',');
    std::array<std::int64_t, kFields> field{};
    for (std::int64_t& value : field)
        if (!readNumber(takeUntil(rest, ','), value)) return false;
    const auto partOf = [&](NameKind kind, int at) {
        return field[static_cast<std::size_t>(at)] < 0 ? std::string()
                                                       : nameOf(kind, field[static_cast<std::size_t>(at)]);
    };
    out.at = epochMs + std::clamp<std::int64_t>(field[kTime], -kMostMs, kMostMs) * 1000;
    out.seq = field[kSeq];
    out.name = field[kClass] < 0 ? "(no class)"
                                 : nameOr(nameOf, NameKind::kExceptionClass, field[kClass], "exception");
    out.throwingClass = partOf(NameKind::kThrowingClass, kThrower);
    out.throwingMethod = partOf(NameKind::kThrowingMethod, kIn);
    out.message = partOf(NameKind::kMessage, kMessage);
    out.cause = partOf(NameKind::kCause, kCause);
    out.stack = plainStack(rest);
    return true;
}

std::vector<NameValue> readRequestHeaders(std::string_view lines, const NameLookup& nameOf) {
    std::vector<NameValue> out;
    while (!lines.empty()) {
        std::string_view rest = takeUntil(lines, '\n');
        if (takeUntil(rest, ',') != "12") continue;
        takeUntil(rest, ',');
        readHeaders(rest, nameOf, out);
    }
    return out;
}

void readDetails(std::string_view lines, std::int64_t durationMs, std::int64_t epochMs,
                 const NameLookup& nameOf, TransactionDetails& out) {
    Tree tree(nameOf, out);
    while (!lines.empty()) {
        const std::string_view line = takeUntil(lines, '\n');
        if (line == kCutLine) {
            out.cut = true;
            continue;
        }
        out.records.emplace_back(line);
        std::string_view rest = line;
        const std::string_view number = takeUntil(rest, ',');
        TransactionException thrown;
        EndRecord end{};
        if (number == "3") {
            takeUntil(rest, ',');
            tree.take(rest);
        } else if (number == "4" && readEnd(rest, end)) {
            tree.take(end.blob);
        } else if (number == "12") {
            takeUntil(rest, ',');
            readHeaders(rest, nameOf, out.request);
        } else if (number == "13") {
            takeUntil(rest, ',');
            takeUntil(rest, ',');
            readHeaders(rest, nameOf, out.response);
        } else if (number == "19") {
            readArgument(rest, nameOf, out);
        } else if (number == "38" && readException(rest, epochMs, nameOf, thrown)) {
            out.exceptions.push_back(std::move(thrown));
        }
    }
    tree.close(static_cast<double>(durationMs));
    nameExceptions(out);
}

}  // namespace vx::collector
