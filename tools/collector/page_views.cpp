#include "tools/collector/page_views.h"

#include <algorithm>
#include <array>

#include "commonlibc/vxlb_clock.h"
#include "tools/collector/page_view_parts.h"

namespace vx::collector {

namespace {

constexpr std::int64_t kUsualSpanMs = 15 * 60 * 1000;
constexpr std::int64_t kUsualSteps = 60;
constexpr std::int64_t kLinkStepMs = 10000;  // in which the store keeps what came over a link
constexpr std::array<const char*, kMonitoredKinds> kKinds = {"bt", "backend", "method", "exception"};

void putCategories(JsonText& json, const Figures& figures) {
    json.put("normal", figures.normal).put("slow", figures.slow);
    json.put("verySlow", figures.verySlow).put("error", figures.error);
}

// Where nothing was counted there is no average.
void putDurations(JsonText& json, const Figures& figures) {
    const bool any = figures.count > 0;
    json.key("averageMs");
    any ? json.item(static_cast<double>(figures.totalMs) / static_cast<double>(figures.count))
        : json.item(nullptr);
    json.key("minMs");
    any ? json.item(figures.minMs) : json.item(nullptr);
    json.key("maxMs");
    any ? json.item(figures.maxMs) : json.item(nullptr);
}

void putFigures(JsonText& json, const Figures& figures) {
    json.put("count", figures.count);
    putDurations(json, figures);
    putCategories(json, figures);
}

// Of a row of sums, or of all of them.
void putSums(JsonText& json, const Figures& figures, double p95Ms, TimeSpan span) {
    putFigures(json, figures);
    json.put("perSecond", perSecond(figures.count, span)).key("p95Ms");
    figures.count > 0 ? json.item(p95Ms) : json.item(nullptr);
}

template <class Value>
void putSeries(JsonText& json, const char* name, const std::vector<Figures>& steps, Value value) {
    json.key(name).open('[');
    for (const Figures& step : steps) json.item(value(step));
    json.close();
}

SumsQuery sumsQueryOf(PageParameters& given) {
    SumsQuery query;
    query.span = spanOf(given);
    query.stepMs = given.number("step", (query.span.to - query.span.from) / kUsualSteps, 1, kMostTime);
    query.instance = given.number("instance", 0, 0, kMostKey);
    const std::string_view kind = given.text("kind");
    const auto at = std::find(kKinds.begin(), kKinds.end(), kind);
    if (at != kKinds.end()) {
        query.kind = static_cast<Monitored>(at - kKinds.begin());
    } else if (!kind.empty()) {
        given.refuse("kind");
    }
    return query;
}

void putInstance(JsonText& json, const InstanceStatus& instance) {
    const Identity& who = instance.identity;
    json.open('{').put("number", instance.number).put("key", std::to_string(instance.key));
    json.put("name", who.text()).put("tier", who.tier).put("server", who.server).put("app", who.app);
    json.put("agent", who.agent).put("connected", !instance.links.empty()).put("started", instance.started);
    json.put("lastHeard", instance.lastHeard).key("lastHeartbeat");
    instance.lastHeartbeat > 0 ? json.item(instance.lastHeartbeat) : json.item(nullptr);
    json.key("connections").open('[');
    for (const LinkStatus& link : instance.links)
        json.open('{')
            .put("kind", link.kind)
            .put("peer", link.peer)
            .put("since", link.since)
            .put("lastHeard", link.lastHeard)
            .put("bytes", link.bytes)
            .close();
    json.close().close();
}

void putStore(JsonText& json, const StoreStatus& store) {
    json.open('{').put("kind", store.kind).put("queued", store.queuedBytes).put("written", store.written);
    json.put("dropped", store.dropped).put("bytes", store.bytes).key("oldest");
    store.oldestAt > 0 ? json.item(store.oldestAt) : json.item(nullptr);
    json.put("lostSums", store.lostSums).put("fault", store.fault).close();
}

Answered askSums(PageParameters& given, StoreQuery& store, JsonText& json) {
    const SumsQuery query = sumsQueryOf(given);
    Sums sums;
    if (!given.fault().empty()) return Answered::kFailed;
    const Answered answered = store.sums(query, sums);
    json.put("from", sums.span.from).put("to", sums.span.to).put("step", sums.stepMs).key("all").open('{');
    putSums(json, sums.all, sums.p95Ms, sums.span);
    json.close().key("rows").open('[');
    for (const SumsRow& row : sums.rows) {
        json.open('{').put("name", row.name);
        putSums(json, row.figures, row.p95Ms, sums.span);
        json.put("discarded", row.discarded);
        putSeries(json, "spark", row.steps, [](const Figures& step) { return step.count; });
        json.close();
    }
    json.close().key("series").open('{').key("at").open('[');
    for (std::size_t i = 0; i < sums.steps.size(); ++i)
        json.item(sums.span.from + static_cast<std::int64_t>(i) * sums.stepMs);
    json.close();
    putSeries(json, "normal", sums.steps, [](const Figures& step) { return step.normal; });
    putSeries(json, "slow", sums.steps, [](const Figures& step) { return step.slow; });
    putSeries(json, "verySlow", sums.steps, [](const Figures& step) { return step.verySlow; });
    putSeries(json, "error", sums.steps, [](const Figures& step) { return step.error; });
    putSeries(json, "averageMs", sums.steps, [](const Figures& step) {
        return step.count > 0
                   ? std::optional(static_cast<double>(step.totalMs) / static_cast<double>(step.count))
                   : std::nullopt;
    });
    json.close();
    return answered;
}

Answered askMonitors(PageParameters& given, StoreQuery& store, JsonText& json) {
    const SumsQuery query = sumsQueryOf(given);
    std::vector<MonitorRow> rows;
    if (!given.fault().empty()) return Answered::kFailed;
    const Answered answered = store.monitors(query, rows);
    json.put("kind", kKinds[static_cast<std::size_t>(query.kind)]).put("from", query.span.from);
    json.put("to", query.span.to).key("rows").open('[');
    for (const MonitorRow& row : rows) {
        json.open('{').put("name", row.name).key("monitor").open('{');
        putFigures(json, row.monitor);
        json.close().key("singles").open('{');
        putFigures(json, row.singles);
        json.close().key("steps").open('[');
        for (const MonitorStep& step : row.steps)
            json.open('{')
                .put("at", step.at)
                .put("monitor", step.monitor.count)
                .put("singles", step.singles.count)
                .close();
        json.close().close();
    }
    json.close();
    return answered;
}

Answered askInstances(PageParameters&, StoreQuery& store, JsonText& json) {
    std::vector<InstanceRow> rows;
    const Answered answered = store.instances(rows);
    json.key("instances").open('[');
    for (const InstanceRow& row : rows)
        json.open('{')
            .put("key", std::to_string(row.instance))
            .put("name", instanceName(row))
            .put("tier", row.tier)
            .put("server", row.server)
            .put("app", row.app)
            .put("agent", row.agent)
            .put("firstAt", row.firstAt)
            .put("lastAt", row.lastAt)
            .close();
    json.close();
    return answered;
}

Answered askLinks(PageParameters& given, StoreQuery& store, JsonText& json) {
    const TimeSpan span = spanOf(given);
    const std::int64_t instance = given.number("instance", 0, 0, kMostKey);
    const std::int64_t asked = given.number("step", kLinkStepMs, 1, kMostTime);
    const std::int64_t step = (asked + kLinkStepMs - 1) / kLinkStepMs * kLinkStepMs;
    std::vector<LinkRow> rows;
    std::vector<RunComparison> comparisons;
    if (!given.fault().empty()) return Answered::kFailed;
    const Answered answered = store.links(span, instance, step, rows);
    if (answered == Answered::kFailed) return answered;
    json.put("step", step);
    const Answered compared = store.comparisons(span, comparisons);
    const InstanceNames names(store);
    json.key("links").open('[');
    for (const LinkRow& row : rows)
        json.open('{')
            .put("at", row.at)
            .put("instance", names.of(row.instance))
            .put("records", row.records)
            .put("monitorRecords", row.monitorRecords)
            .put("bytes", row.bytes)
            .put("unreadable", row.unreadable)
            .put("dropped", row.dropped)
            .put("incomplete", row.incomplete)
            .put("connects", row.connects)
            .put("disconnects", row.disconnects)
            .close();
    json.close().key("comparisons").open('[');
    for (const RunComparison& row : comparisons)
        json.open('{')
            .put("at", row.at)
            .put("instance", names.of(row.instance))
            .put("agreed", row.agreed)
            .put("partial", row.partial)
            .put("differing", row.differing)
            .close();
    json.close();
    return compared == Answered::kOk ? answered : compared;
}

}  // namespace

TimeSpan spanOf(PageParameters& given) {
    TimeSpan span;
    span.to = given.number("to", vxlb_now_ms(), 0, kMostTime);
    span.from = given.number("from", std::max<std::int64_t>(0, span.to - kUsualSpanMs), 0, kMostTime);
    if (span.from >= span.to) given.refuse("from");
    return span;
}

double perSecond(std::uint64_t count, TimeSpan span) {
    const std::int64_t ms = span.to - span.from;
    return ms > 0 ? static_cast<double>(count) * 1000 / static_cast<double>(ms) : 0;
}

void putLines(JsonText& json, const char* name, std::string_view text) {
    json.key(name).open('[');
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        json.item(line);
    }
    json.close();
}

std::string instanceName(const InstanceRow& row) {
    return Identity{row.tier, row.server, row.app, row.agent}.text();
}

InstanceNames::InstanceNames(StoreQuery& store) {
    std::vector<InstanceRow> rows;
    store.instances(rows);
    for (const InstanceRow& row : rows) names_[row.instance] = instanceName(row);
}

std::string InstanceNames::of(std::int64_t key) const {
    const auto at = names_.find(key);
    return at == names_.end() ? "instance " + std::to_string(key) : at->second;
}

PageAnswer storeFault(const StoreQuery& store) {
    return pageFault(503, store.error().empty() ? "the store does not answer" : store.error());
}

PageAnswer viewStatus(const PageApi::Parts& parts, const PageRequest&) {
    const auto status = parts.board->get();
    if (!status) return pageFault(503, "the collector is starting");
    const std::optional<StoreStatus> store =
        parts.storeStatus ? std::optional(parts.storeStatus()) : std::nullopt;
    JsonText json;
    json.open('{').put("now", status->now).put("started", status->started).put("version", VX_VERSION);
    json.put("testRun", status->testRun).put("serial", store ? store->commits : status->records);
    json.put("records", status->records).put("monitorRecords", status->monitorRecords);
    json.put("bytes", status->bytes).put("transactions", status->transactions);
    json.put("unreadable", status->unreadable).put("comparedRuns", status->comparedRuns);
    json.put("connections", status->connections).put("refusedConnections", status->refusedConnections);
    json.key("instances").open('[');
    for (const InstanceStatus& instance : status->instances) putInstance(json, instance);
    json.close().key("store");
    store ? putStore(json, *store) : void(json.item(nullptr));
    json.key("rules").open('{').put("editable", parts.rules->editable()).close();
    json.put("token", !parts.guard->open()).close();
    return jsonAnswer(json);
}

PageAnswer viewOverview(const PageApi::Parts& parts, const PageRequest& request) {
    return askStore(parts, request, askSums);
}

PageAnswer viewMonitors(const PageApi::Parts& parts, const PageRequest& request) {
    return askStore(parts, request, askMonitors);
}

PageAnswer viewInstances(const PageApi::Parts& parts, const PageRequest& request) {
    return askStore(parts, request, askInstances);
}

PageAnswer viewLinks(const PageApi::Parts& parts, const PageRequest& request) {
    return askStore(parts, request, askLinks);
}

}  // namespace vx::collector
