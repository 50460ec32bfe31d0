#include "tools/collector/page_preview.h"

#include <algorithm>

namespace vx::collector {

namespace {

constexpr const char* kMethods[] = {"", "GET", "POST", "PUT", "DELETE", "PATCH", "HEAD", "OPTIONS"};

// The texts of a preview, each read as an instance would.
struct Readings {
    VXRuleReading before, after;
    std::unique_ptr<VXRuleReading> fresh = std::make_unique<VXRuleReading>();  // the edited text alone

    bool read(const std::string* inForce, const std::string& edited) {
        return before.good() && after.good() && fresh->good() && before.read(inForce ? *inForce : "") &&
               (!inForce || after.read(*inForce)) && after.read(edited) && fresh->read(edited);
    }
};

struct Request {
    VXRuleRequest request;
    std::string headers;
    bool hasHeaders = false;

    const char* header() const { return hasHeaders ? headers.c_str() : nullptr; }
};

Request requestOf(const RequestRow& row) {
    Request out{{row.url, row.query, ""}, "", !row.headers.empty()};
    for (const NameValue& header : row.headers) out.headers += header.name + "=" + header.value + "&";
    return out;
}

// The BT by the rules in force; the request gets the method that leads to the one it has. False: none does.
bool nameBefore(VXRuleReading& before, bool byMethod, const std::string& had, Request& request,
                std::string& name) {
    const auto named = [&](const char* method) {
        request.request.method = method;
        name = before.classify(request.request, request.header()).bt;
        return name == had;
    };
    if (byMethod ? std::any_of(std::begin(kMethods), std::end(kMethods), named) : named("")) return true;
    named("");
    return false;
}

bool asksFor(const VXRuleReading& reading, const char* what) {
    return std::any_of(reading.lines().begin(), reading.lines().end(), [what](const VXReadLine& line) {
        return line.meaning.find(what) != std::string::npos;
    });
}

void countMove(RulePreview& out, const RequestRow& row, const std::string& from, const std::string& to) {
    ++out.looked;
    ++out.counts[from].first;
    ++out.counts[to].second;
    if (from == to) return;
    ++out.moved;
    RuleMove& move = out.moves[{from, to}];
    ++move.count;
    if (move.examples.size() < kMoveExamples)
        move.examples.emplace_back(row.id, row.query.empty() ? row.url : row.url + "?" + row.query);
}

void takeNotes(const Readings& readings, std::size_t unlike, std::size_t later, RulePreview& out) {
    if (unlike > 0)
        out.notes.push_back(
            std::to_string(unlike) +
            " of them have a BT that the rules in force would not give them now; they are compared as "
            "these would name them.");
    if (later > 0)
        out.notes.push_back(
            std::to_string(later) +
            " of them are named otherwise once the instrumentation is stopped and started: until then "
            "rules of the former text count, too.");
    if (asksFor(readings.before, "method") || asksFor(*readings.fresh, "method"))
        out.notes.emplace_back(
            "Records do not tell the method of a request. Where its BT does not tell it, rules that "
            "ask for one are taken not to match.");
    if (asksFor(readings.before, "header") || asksFor(*readings.fresh, "header"))
        out.notes.emplace_back("Headers count as far as they were captured.");
}

JsonText& putName(JsonText& json, const char* key, const std::string& name) {
    return json.putKnown(key, !name.empty(), name);
}

}  // namespace

bool makePreview(const std::string* inForce, const std::string& edited,
                 const std::vector<RequestRow>& requests, RulePreview& out) {
    Readings readings;
    if (!readings.read(inForce, edited)) return false;
    std::size_t unlike = 0, later = 0;
    const bool byMethod = asksFor(readings.before, "method");
    for (const RequestRow& row : requests) {
        Request request = requestOf(row);
        std::string from = row.bt;
        if (inForce && !nameBefore(readings.before, byMethod, row.bt, request, from)) ++unlike;
        const std::string to = readings.after.classify(request.request, request.header()).bt;
        if (readings.fresh->classify(request.request, request.header()).bt != to) ++later;
        countMove(out, row, from, to);
    }
    takeNotes(readings, unlike, later, out);
    out.reading = std::move(readings.fresh);
    return true;
}

void putPreview(JsonText& json, const RulePreview& preview) {
    std::vector<decltype(preview.moves)::const_iterator> moves;
    for (auto at = preview.moves.begin(); at != preview.moves.end(); ++at) moves.push_back(at);
    std::stable_sort(moves.begin(), moves.end(),
                     [](const auto& a, const auto& b) { return a->second.count > b->second.count; });
    json.put("looked", preview.looked).put("moved", preview.moved);
    json.putObjects("moves", moves, [&](const auto& at) {
        putName(json, "from", at->first.first);
        putName(json, "to", at->first.second).put("count", at->second.count);
        json.putObjects("examples", at->second.examples, [&](const auto& example) {
            json.put("id", std::to_string(example.first)).put("url", example.second);
        });
    });
    json.putObjects("counts", preview.counts, [&](const auto& row) {
        putName(json, "bt", row.first).put("before", row.second.first).put("after", row.second.second);
    });
    json.key("notes").open('[');
    for (const std::string& note : preview.notes) json.item(note);
    json.close();
}

}  // namespace vx::collector
