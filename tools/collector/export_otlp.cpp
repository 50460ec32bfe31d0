#include "tools/collector/export_otlp.h"

#include <algorithm>
#include <cmath>
#include <string_view>

#include "tools/collector/export_text.h"

namespace vx::collector {

namespace {

enum SpanKind { kInternal = 1, kServer = 2, kClient = 3, kProducer = 4 };
constexpr int kStatusError = 2;
constexpr int kCategoryError = 13;

std::uint64_t hashOf(std::string_view text, std::uint64_t hash) {
    for (const char byte : text) hash = (hash ^ static_cast<unsigned char>(byte)) * 1099511628211U;
    hash ^= hash >> 29;
    hash *= 0xBF58476D1CE4E5B9U;
    return hash ^ (hash >> 32);
}

std::string hexOf(std::uint64_t value) {
    constexpr char kHex[] = "0123456789abcdef";
    std::string out(16, '0');
    if (value == 0) value = 1;  // an id of zeros is none
    for (std::size_t at = out.size(); at-- > 0; value >>= 4) out[at] = kHex[value & 0xF];
    return out;
}

// Ids of the trace context are hex digits of a fixed length, not all of them zero, small letters here.
std::string hexId(const std::string& text, std::size_t digits) {
    std::string out;
    for (const char byte : text)
        out += static_cast<char>(byte >= 'A' && byte <= 'F' ? byte + ('a' - 'A') : byte);
    const bool good = out.size() == digits &&
                      out.find_first_not_of("0123456789abcdef") == std::string::npos &&
                      out.find_first_not_of('0') != std::string::npos;
    return good ? out : std::string();
}

std::string keyOf(const TransactionRow& row) {
    return std::to_string(row.instance) + "/" + std::to_string(row.flowpath) + "/" +
           std::to_string(row.start);
}

// Builds the list of attributes of one object.
class Attributes {
public:
    Attributes& text(const char* name, std::string_view value) {
        if (value.empty()) return *this;
        begin(name, "stringValue");
        addJsonText(list_, value);
        list_ += "}}";
        return *this;
    }
    // 64-bit numbers are texts in JSON.
    Attributes& number(const char* name, std::int64_t value) {
        begin(name, "intValue");
        list_.append("\"").append(std::to_string(value)).append("\"}}");
        return *this;
    }
    std::string list() const { return "[" + list_ + "]"; }

private:
    void begin(const char* name, const char* kind) {
        if (!list_.empty()) list_ += ',';
        list_.append(R"({"key":)");
        addJsonText(list_, name);
        list_.append(R"(,"value":{")").append(kind).append("\":");
    }
    std::string list_;
};

std::string nanosOf(std::int64_t ms, double fractionMs = 0) {
    return std::to_string(ms * 1'000'000 + std::llround(fractionMs * 1'000'000));
}

struct Span {
    std::string id, parent, name;
    int kind = kInternal;
    std::string start, end;  // nanoseconds
    Attributes attributes;
    std::string events;
    bool failed = false;
};

void addSpan(std::string& out, const std::string& trace, const Span& span) {
    if (!out.empty()) out += ',';
    out.append(R"({"traceId":")").append(trace).append(R"(","spanId":")").append(span.id);
    if (!span.parent.empty()) out.append(R"(","parentSpanId":")").append(span.parent);
    out.append(R"(","name":)");
    addJsonText(out, span.name);
    out.append(R"(,"kind":)").append(std::to_string(span.kind));
    out.append(R"(,"startTimeUnixNano":")").append(span.start);
    out.append(R"(","endTimeUnixNano":")").append(span.end);
    out.append(R"(","attributes":)").append(span.attributes.list());
    if (!span.events.empty()) out.append(R"(,"events":[)").append(span.events).append("]");
    if (span.failed) out.append(R"(,"status":{"code":)").append(std::to_string(kStatusError)).append("}");
    out += '}';
}

// Exceptions have whole seconds: their events are moved into the span.
std::string eventsOf(const TransactionDetails& tx) {
    std::string out;
    for (const TransactionException& thrown : tx.exceptions) {
        if (!out.empty()) out += ',';
        out.append(R"({"timeUnixNano":")")
            .append(nanosOf(std::clamp(thrown.at, tx.row.start, tx.row.at)))
            .append(R"(","name":"exception","attributes":)");
        out += Attributes()
                   .text("exception.type", thrown.name)
                   .text("exception.message", thrown.message)
                   .text("exception.stacktrace", thrown.stack)
                   .list();
        out += '}';
    }
    return out;
}

void addTransaction(std::string& out, const TransactionDetails& tx, const TraceIds& ids) {
    const TransactionRow& row = tx.row;
    const std::size_t mark = row.url.find('?');
    Span span;
    span.id = ids.span;
    span.parent = ids.parent;
    span.name = row.bt;
    span.kind = kServer;
    span.start = nanosOf(row.start);
    span.end = nanosOf(row.at);
    span.failed = row.category == kCategoryError;
    span.attributes.text("url.path", row.url.substr(0, mark))
        .text("url.query", mark == std::string::npos ? "" : row.url.substr(mark + 1))
        .number("vx.category", row.category)
        .text("vx.flowpath", std::to_string(row.flowpath))
        .text("vx.session", row.session == "0" ? "" : row.session)
        .text("vx.correlation", row.correlation);
    if (row.status > 0) span.attributes.number("http.response.status_code", row.status);
    for (const NameValue& header : tx.request)
        span.attributes.text(("vx.request.header." + header.name).c_str(), header.value);
    for (const NameValue& header : tx.response)
        span.attributes.text(("vx.response.header." + header.name).c_str(), header.value);
    span.events = eventsOf(tx);
    addSpan(out, ids.trace, span);
}

void addItem(std::string& out, const TransactionDetails& tx, const TransactionItem& item, Span span,
             const std::string& trace) {
    span.name = item.name;
    span.start = nanosOf(tx.row.start, item.startMs);
    span.end = nanosOf(tx.row.start, item.startMs + item.durationMs);
    if (item.kind == TransactionItem::Kind::kCallout) {
        span.kind = item.target == "MQ" ? kProducer : kClient;
        span.failed = item.failed;
        span.attributes.text("peer.service", item.name).text("vx.target", item.target);
        span.attributes.text("db.query.text", item.target == "DB" ? item.query : "");
        if (item.target == "HTTP") span.attributes.number("http.response.status_code", item.status);
    } else {
        span.attributes.text("code.function.name", item.name).text("url.path", item.query);
    }
    addSpan(out, trace, span);
}

}  // namespace

TraceIds ownIds(const TransactionRow& row) {
    const std::string key = keyOf(row);
    TraceIds out;
    out.span = hexOf(hashOf(key, 3));
    out.trace = hexId(row.traceId, 32);
    if (out.trace.empty()) {
        out.trace = hexOf(hashOf(key, 1)) + hexOf(hashOf(key, 2));
    } else {
        out.parent = hexId(row.callerSpan, 16);
    }
    return out;
}

void addSpans(std::string& out, const TransactionDetails& tx, const TraceIds& ids) {
    std::string spans;
    addTransaction(spans, tx, ids);
    const std::string key = keyOf(tx.row) + "/";
    const auto idOf = [&key](std::size_t at) { return hexOf(hashOf(key + std::to_string(at), 3)); };
    for (std::size_t at = 0; at < tx.items.size(); ++at) {
        const TransactionItem& item = tx.items[at];
        if (item.kind == TransactionItem::Kind::kException) continue;
        Span span;
        span.id = idOf(at);
        span.parent = item.parent < 0 ? ids.span : idOf(static_cast<std::size_t>(item.parent));
        addItem(spans, tx, item, std::move(span), ids.trace);
    }
    if (!out.empty()) out += ',';
    out += spans;
}

std::string resourceOf(const InstanceRow& instance) {
    return Attributes()
        .text("service.name", instance.app)
        .text("service.namespace", instance.tier)
        .text("service.instance.id", instance.agent.empty() ? instance.server : instance.agent)
        .text("host.name", instance.server)
        .list();
}

}  // namespace vx::collector
