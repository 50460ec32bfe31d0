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

// Where nothing was counted there is none.
std::optional<double> averageOf(const Figures& figures) {
    if (figures.count == 0) return std::nullopt;
    return static_cast<double>(figures.totalMs) / static_cast<double>(figures.count);
}

void putDurations(JsonText& json, const Figures& figures) {
    const bool any = figures.count > 0;
    json.put("averageMs", averageOf(figures)).putKnown("minMs", any, figures.minMs);
    json.putKnown("maxMs", any, figures.maxMs);
}

void putFigures(JsonText& json, const Figures& figures) {
    json.put("count", figures.count);
    putDurations(json, figures);
    putCategories(json, figures);
}

// Of a row of sums, or of all of them.
void putSums(JsonText& json, const Figures& figures, double p95Ms, TimeSpan span) {
    putFigures(json, figures);
    json.put("perSecond", perSecond(figures.count, span)).putKnown("p95Ms", figures.count > 0, p95Ms);
}

template <class Value>
void putSteps(JsonText& json, const char* name, const std::vector<Figures>& steps, Value value) {
    json.key(name).open('[');
    for (const Figures& step : steps) json.item(value(step));
    json.close();
}

void putLink(JsonText& json, const LinkStatus& link) {
    json.put("kind", link.kind).put("peer", link.peer).put("since", link.since);
    json.put("lastHeard", link.lastHeard).put("bytes", link.bytes);
}

void putInstance(JsonText& json, const InstanceStatus& instance) {
    const Identity& who = instance.identity;
    json.putKnown("number", instance.number > 0, instance.number)
        .put("key", std::to_string(instance.key))
        .put("name", who.text());
    json.put("tier", who.tier).put("server", who.server).put("app", who.app).put("agent", who.agent);
    json.put("connected", !instance.links.empty()).put("started", instance.started);
    json.put("lastHeard", instance.lastHeard);
    json.putKnown("lastHeartbeat", instance.lastHeartbeat > 0, instance.lastHeartbeat);
    json.putKnown("rulesVersion", instance.rulesVersion > 0, instance.rulesVersion);
    json.putObjects("connections", instance.links, [&](const LinkStatus& link) { putLink(json, link); });
}

void putStore(JsonText& json, const StoreStatus& store) {
    json.open('{').put("kind", store.kind).put("queued", store.queuedBytes).put("written", store.written);
    json.put("dropped", store.dropped).put("bytes", store.bytes);
    json.putKnown("oldest", store.oldestAt > 0, store.oldestAt);
    json.put("lostSums", store.lostSums).put("fault", store.fault).close();
}

void putSeries(JsonText& json, const Sums& sums) {
    json.key("series").open('{').key("at").open('[');
    for (std::size_t i = 0; i < sums.steps.size(); ++i)
        json.item(sums.span.from + static_cast<std::int64_t>(i) * sums.stepMs);
    json.close();
    putSteps(json, "normal", sums.steps, [](const Figures& step) { return step.normal; });
    putSteps(json, "slow", sums.steps, [](const Figures& step) { return step.slow; });
    putSteps(json, "verySlow", sums.steps, [](const Figures& step) { return step.verySlow; });
    putSteps(json, "error", sums.steps, [](const Figures& step) { return step.error; });
    putSteps(json, "averageMs", sums.steps, averageOf);
    json.close();
}

void putLinkRow(JsonText& json, const LinkRow& row, const InstanceNames& names) {
    json.put("at", row.at).put("instance", names.of(row.instance)).put("records", row.records);
    json.put("monitorRecords", row.monitorRecords).put("bytes", row.bytes).put("unreadable", row.unreadable);
    json.put("dropped", row.dropped).put("incomplete", row.incomplete).put("connects", row.connects);
    json.put("disconnects", row.disconnects);
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

TimeSpan coveredSpan(const StoreQuery& store, TimeSpan asked) {
    const TimeSpan covered = store.covered();
    return {covered.from, std::min(covered.to, std::max(asked.to, vxlb_now_ms()))};
}

void putSpan(JsonText& json, TimeSpan span) {
    json.put("from", span.from).put("to", span.to);
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

PageAnswer noStore() {
    return pageFault(503, "there is no store: start the collector with --db FILE");
}

PageAnswer answerOfStore(const PageApi::Parts& parts, const PageRequest& request, AskStore ask) {
    if (!parts.store) return noStore();
    PageParameters given(request);
    JsonText json;
    json.open('{');
    const Answered answered = ask(given, *parts.store, json);
    if (!given.fault().empty()) return pageFault(400, given.fault());
    if (answered == Answered::kFailed) return storeFault(*parts.store);
    json.put("complete", answered == Answered::kOk).close();
    return jsonAnswer(json);
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
    json.putObjects("instances", status->instances,
                    [&](const InstanceStatus& instance) { putInstance(json, instance); });
    json.key("store");
    store ? putStore(json, *store) : void(json.item(nullptr));
    json.key("rules").open('{').put("editable", parts.rules->editable()).close();
    json.put("token", !parts.guard->open()).close();
    return jsonAnswer(json);
}

Answered askOverview(PageParameters& given, StoreQuery& store, JsonText& json) {
    const SumsQuery query = sumsQueryOf(given);
    Sums sums;
    if (!given.fault().empty()) return Answered::kFailed;
    const Answered answered = store.sums(query, sums);
    const TimeSpan span = coveredSpan(store, query.span);
    putSpan(json, span);
    json.put("step", sums.stepMs).key("all").open('{');
    putSums(json, sums.all, sums.p95Ms, span);
    json.close().putObjects("rows", sums.rows, [&](const SumsRow& row) {
        json.put("name", row.name);
        putSums(json, row.figures, row.p95Ms, span);
        json.put("discarded", row.discarded);
        putSteps(json, "spark", row.steps, [](const Figures& step) { return step.count; });
    });
    putSeries(json, sums);
    return answered;
}

Answered askMonitors(PageParameters& given, StoreQuery& store, JsonText& json) {
    const SumsQuery query = sumsQueryOf(given);
    std::vector<MonitorRow> rows;
    if (!given.fault().empty()) return Answered::kFailed;
    const Answered answered = store.monitors(query, rows);
    putSpan(json.put("kind", kKinds[static_cast<std::size_t>(query.kind)]), coveredSpan(store, query.span));
    json.putObjects("rows", rows, [&](const MonitorRow& row) {
        json.put("name", row.name).key("monitor").open('{');
        putFigures(json, row.monitor);
        json.close().key("singles").open('{');
        putFigures(json, row.singles);
        json.close().putObjects("steps", row.steps, [&](const MonitorStep& step) {
            json.put("at", step.at).put("monitor", step.monitor.count).put("singles", step.singles.count);
        });
    });
    return answered;
}

Answered askReports(PageParameters& given, StoreQuery& store, JsonText& json) {
    const SumsQuery query = sumsQueryOf(given);
    std::vector<ReportRow> rows;
    if (!given.fault().empty()) return Answered::kFailed;
    const Answered answered = store.reports(query, std::string(given.text("name")), rows);
    const InstanceNames names(store);
    putSpan(json, coveredSpan(store, query.span));
    json.putObjects("reports", rows, [&](const ReportRow& row) {
        json.put("at", row.at).put("instance", names.of(row.instance)).put("count", row.count);
        json.put("line", row.line);
    });
    return answered;
}

Answered askInstances(PageParameters&, StoreQuery& store, JsonText& json) {
    std::vector<InstanceRow> rows;
    const Answered answered = store.instances(rows);
    json.putObjects("instances", rows, [&](const InstanceRow& row) {
        json.put("key", std::to_string(row.instance)).put("name", instanceName(row)).put("tier", row.tier);
        json.put("server", row.server).put("app", row.app).put("agent", row.agent);
        json.put("firstAt", row.firstAt).put("lastAt", row.lastAt);
    });
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
    if (instance) std::erase_if(comparisons, [&](const auto& row) { return row.instance != instance; });
    json.putObjects("links", rows, [&](const LinkRow& row) { putLinkRow(json, row, names); });
    json.putObjects("comparisons", comparisons, [&](const RunComparison& row) {
        json.put("at", row.at).put("instance", names.of(row.instance)).put("agreed", row.agreed);
        json.put("partial", row.partial).put("differing", row.differing);
    });
    return compared == Answered::kOk ? answered : compared;
}

}  // namespace vx::collector
