// What the views share: their span of time, names of instances, and a store that does not answer.
//
// Threads   The page server's.
#pragma once

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
// The span that the store's last answer on sums covers, and no more of the future than was asked for. The
// transactions of just that span are those that were counted.
TimeSpan coveredSpan(const StoreQuery& store, TimeSpan asked);
// Members `from` and `to`.
void putSpan(JsonText& json, TimeSpan span);
double perSecond(std::uint64_t count, TimeSpan span);
const char* categoryName(std::int64_t category);
// A list out of a text of lines.
void putLines(JsonText& json, const char* name, std::string_view text);
// What is asked of sums.
SumsQuery sumsQueryOf(PageParameters& given);

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
// There is none.
PageAnswer noStore();

}  // namespace vx::collector
