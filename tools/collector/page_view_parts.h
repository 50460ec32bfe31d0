// What the views share: their span of time, names of instances, and how a question to the store is answered.
//
// Threads   The page server's.
#pragma once

#include <charconv>
#include <map>
#include <string>

#include "tools/collector/page_api.h"
#include "tools/collector/page_json.h"
#include "tools/collector/store_query.h"

namespace vx::collector {

inline constexpr std::int64_t kMostKey = (std::int64_t{1} << 53) - 1;
inline constexpr std::int64_t kMostTime = kMostKey;

// The span of a request: the last 15 minutes unless it says otherwise.
TimeSpan spanOf(PageParameters& given);
double perSecond(std::uint64_t count, TimeSpan span);
const char* categoryName(std::int64_t category);
// A list out of a text of lines.
void putLines(JsonText& json, const char* name, std::string_view text);

// Names of the store's instances by their keys.
class InstanceNames {
public:
    explicit InstanceNames(StoreQuery& store);
    std::string of(std::int64_t key) const;

private:
    std::map<std::int64_t, std::string> names_;
};
std::string instanceName(const InstanceRow& row);

// A store that does not answer.
PageAnswer storeFault(const StoreQuery& store);

// Asks the store: `ask(given, store, json)` answers what the store did, with the open object of the answer
// filled.
template <class Ask>
PageAnswer askStore(const PageApi::Parts& parts, const PageRequest& request, Ask ask) {
    if (!parts.store) return pageFault(503, "there is no store: start the collector with --db FILE");
    PageParameters given(request);
    JsonText json;
    json.open('{');
    const Answered answered = ask(given, *parts.store, json);
    if (!given.fault().empty()) return pageFault(400, given.fault());
    if (answered == Answered::kFailed) return storeFault(*parts.store);
    json.put("complete", answered == Answered::kOk).close();
    return jsonAnswer(json);
}

}  // namespace vx::collector
