#include <algorithm>
#include <array>
#include <charconv>

#include "tools/collector/page_view_parts.h"
#include "tools/collector/page_views.h"

namespace vx::collector {

namespace {

constexpr std::int64_t kUsualRows = 100, kMostListed = 1000;
constexpr std::int64_t kMostCallMs = kMostTime / 1000;  // calls are kept in microseconds
constexpr int kAbnormal = -1;                           // all categories but normal
struct CategoryRow {
    const char* name;
    int category;
};
constexpr CategoryRow kCategories[] = {
    {"normal", 10}, {"slow", 11}, {"verySlow", 12}, {"error", 13}, {"abnormal", kAbnormal}};

// "time:id", as `next` says it.
void takeCursor(PageParameters& given, TransactionsQuery& query) {
    const std::string_view text = given.text("before");
    if (text.empty()) return;
    const char* end = text.data() + text.size();
    const auto [colon, first] = std::from_chars(text.data(), end, query.beforeAt);
    if (first == std::errc{} && colon != end && *colon == ':') {
        const auto [rest, second] = std::from_chars(colon + 1, end, query.beforeId);
        if (second == std::errc{} && rest == end) return;
    }
    given.refuse("before");
}

TransactionsQuery queryOf(PageParameters& given) {
    TransactionsQuery query;
    query.span = spanOf(given);
    query.bt = given.text("bt");
    query.backend = given.text("backend");
    query.exception = given.text("exception");
    query.url = given.text("url");
    query.session = given.text("session");
    query.failedCalls = given.number("failed", 0, 0, 1) == 1;
    query.leastCallMs = given.number("callMin", 0, 0, kMostCallMs);
    query.caller = given.number("caller", 0, 0, kMostKey);
    query.status = given.number("status", -1, 0, INT32_MAX);
    query.minMs = given.number("min", 0, 0, kMostTime);
    query.maxMs = given.number("max", INT64_MAX, 0, kMostTime);
    query.instance = given.number("instance", 0, 0, kMostKey);
    query.flowpath = given.number("number", 0, 0, INT64_MAX);
    query.limit = static_cast<std::size_t>(given.number("limit", kUsualRows, 1, kMostListed));
    takeCursor(given, query);
    if (query.backend.empty() && query.failedCalls) given.refuse("failed");
    if (query.backend.empty() && query.leastCallMs > 0) given.refuse("callMin");
    const std::string_view category = given.text("category");
    const auto* row = std::find_if(std::begin(kCategories), std::end(kCategories),
                                   [category](const CategoryRow& at) { return category == at.name; });
    if (row != std::end(kCategories)) {
        query.category = row->category;
    } else if (!category.empty()) {
        given.refuse("category");
    }
    return query;
}

// Members of an object.
void putRow(JsonText& json, const TransactionRow& row, const InstanceNames& names) {
    json.put("id", std::to_string(row.id)).put("number", std::to_string(row.flowpath));
    json.put("instance", names.of(row.instance)).put("bt", row.bt).put("url", row.url);
    json.put("status", row.status).put("category", categoryName(row.category)).put("start", row.start);
    json.put("end", row.at).put("durationMs", row.duration).put("session", row.session);
    json.put("callouts", row.callouts).put("exceptions", row.exceptions);
}

void putItem(JsonText& json, const TransactionItem& item) {
    json.put("depth", item.depth).put("parent", item.parent).put("name", item.name);
    json.put("atMs", item.startMs);
    switch (item.kind) {
        case TransactionItem::Kind::kMethod:
            json.put("kind", "method").put("durationMs", item.durationMs).put("selfMs", item.selfMs);
            json.put("cpu", item.cpuMs).put("open", item.open).put("url", item.query);
            break;
        case TransactionItem::Kind::kCallout:
            json.put("kind", "callout").put("durationMs", item.durationMs).put("type", item.target);
            json.put("query", item.query).put("status", item.status).put("failed", item.failed);
            json.put("seq", item.seq);
            break;
        case TransactionItem::Kind::kException:
            json.put("kind", "exception").put("seq", item.seq);
            break;
    }
}

void putException(JsonText& json, const TransactionException& thrown) {
    json.put("class", thrown.name).put("message", thrown.message).put("cause", thrown.cause);
    json.put("throwingClass", thrown.throwingClass).put("throwingMethod", thrown.throwingMethod);
    json.put("at", thrown.at).put("seq", thrown.seq);
    putLines(json, "stack", thrown.stack);
}

void putHeaders(JsonText& json, const char* name, const std::vector<NameValue>& headers) {
    json.putObjects(name, headers, [&](const NameValue& header) {
        json.put("name", header.name).put("value", header.value);
    });
}

void putDetails(JsonText& json, const TransactionDetails& details) {
    json.putObjects("items", details.items, [&](const TransactionItem& item) { putItem(json, item); });
    json.putObjects("thrown", details.exceptions,
                    [&](const TransactionException& thrown) { putException(json, thrown); });
    putHeaders(json, "requestHeaders", details.request);
    putHeaders(json, "responseHeaders", details.response);
    json.putObjects("arguments", details.arguments, [&](const Argument& argument) {
        json.put("method", argument.method).put("name", argument.name).put("value", argument.value);
    });
    json.key("records").open('[');
    for (const std::string& record : details.records) json.item(record);
    json.close();
}

void putBackend(JsonText& json, const BackendSums& row, TimeSpan span) {
    json.put("backend", row.name).put("type", row.kind).put("calls", row.count).put("errors", row.errors);
    json.put("averageMs", row.averageMs).put("maxMs", row.maxMs).put("p95Ms", row.p95Ms);
    json.put("perSecond", perSecond(row.count, span));
}

void putEdge(JsonText& json, const CallEdge& edge, const InstanceNames& names) {
    const bool toInstance = edge.toInstance != 0;
    json.put("from", names.of(edge.fromInstance)).put("fromKey", std::to_string(edge.fromInstance));
    json.put("to", toInstance ? names.of(edge.toInstance) : edge.backend);
    json.put("toKind", toInstance ? "instance" : "backend");
    if (toInstance) json.put("toKey", std::to_string(edge.toInstance));
    json.put("calls", edge.count).put("errors", edge.errors).put("averageMs", edge.averageMs);
}

}  // namespace

const char* categoryName(std::int64_t category) {
    const auto* row = std::find_if(std::begin(kCategories), std::end(kCategories),
                                   [category](const CategoryRow& at) { return category == at.category; });
    return row == std::end(kCategories) ? "unknown" : row->name;
}

Answered askTransactions(PageParameters& given, StoreQuery& store, JsonText& json) {
    const TransactionsQuery query = queryOf(given);
    const bool counted = given.number("count", 0, 0, 1) == 1;
    std::vector<TransactionRow> rows;
    if (!given.fault().empty()) return Answered::kFailed;
    std::uint64_t count = 0;
    if (counted) json.putKnown("count", store.count(query, count) == Answered::kOk, count);
    const Answered answered = store.transactions(query, rows);
    const InstanceNames names(store);
    json.putObjects("rows", rows, [&](const TransactionRow& row) { putRow(json, row, names); });
    // What was not read in time may stand behind the last row.
    const bool more = !rows.empty() && (rows.size() >= query.limit || answered == Answered::kCut);
    json.putKnown("next", more,
                  more ? std::to_string(rows.back().at) + ":" + std::to_string(rows.back().id) : "");
    return answered;
}

Answered askBackends(PageParameters& given, StoreQuery& store, JsonText& json) {
    const TimeSpan asked = spanOf(given);
    Backends backends;
    if (!given.fault().empty()) return Answered::kFailed;
    const Answered answered = store.backends(asked, backends);
    const TimeSpan span = coveredSpan(store, asked);
    const InstanceNames names(store);
    putSpan(json, span);
    json.putObjects("backends", backends.rows, [&](const BackendSums& row) { putBackend(json, row, span); });
    json.putObjects("edges", backends.edges, [&](const CallEdge& edge) { putEdge(json, edge, names); });
    return answered;
}

Answered askExceptions(PageParameters& given, StoreQuery& store, JsonText& json) {
    const TimeSpan asked = spanOf(given);
    std::vector<ExceptionSums> rows;
    if (!given.fault().empty()) return Answered::kFailed;
    const Answered answered = store.exceptions(asked, rows);
    putSpan(json, coveredSpan(store, asked));
    json.putObjects("exceptions", rows, [&](const ExceptionSums& row) {
        json.put("class", row.name).put("count", row.count);
        const bool known = row.lastTransaction > 0;
        json.putKnown("lastAt", known, row.lastAt).put("lastText", row.lastText);
        json.putKnown("lastTransaction", known, std::to_string(row.lastTransaction));
        putLines(json, "lastStack", row.lastStack);
        json.putObjects("bts", row.bts,
                        [&](const auto& bt) { json.put("bt", bt.first).put("count", bt.second); });
    });
    return answered;
}

PageAnswer viewTransaction(const PageApi::Parts& parts, std::string_view id) {
    if (!parts.store) return noStore();
    std::int64_t number = 0;
    const auto [end, code] = std::from_chars(id.data(), id.data() + id.size(), number);
    TransactionDetails details;
    if (code != std::errc{} || end != id.data() + id.size() || number < 1 || number > kMostKey)
        return pageFault(404, "no such transaction");
    const Answered answered = parts.store->transaction(number, details);
    if (answered == Answered::kFailed)
        return parts.store->error().empty() ? pageFault(404, "no such transaction, or no longer")
                                            : storeFault(*parts.store);
    const TransactionRow& row = details.row;
    JsonText json;
    json.open('{');
    putRow(json, row, InstanceNames(*parts.store));
    json.put("cpu", row.cpu).put("page", row.page).put("correlation", row.correlation);
    json.put("traceId", row.traceId).put("callerSpan", row.callerSpan).put("endReason", row.endReason);
    json.put("complete", answered == Answered::kOk && !details.cut);
    json.putKnown("caller", details.caller > 0, std::to_string(details.caller)).key("callees").open('[');
    for (const std::int64_t callee : details.callees) json.item(std::to_string(callee));
    json.close();
    putDetails(json, details);
    json.close();
    return jsonAnswer(json);
}

}  // namespace vx::collector
