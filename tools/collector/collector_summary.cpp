#include "tools/collector/collector_summary.h"

namespace vx::collector {

namespace {

constexpr std::string_view kMore = "(more)";

template <class Row>
Row& rowOf(std::map<std::string, Row, std::less<>>& rows, std::string_view name) {
    auto found = rows.find(name);
    if (found != rows.end()) return found->second;
    if (rows.size() >= kMaxRows) name = kMore;
    return rows[std::string(name)];
}

}  // namespace

BtRow& btRow(Summary& summary, std::string_view name) {
    return rowOf(summary.bts, name);
}
MethodRow& methodRow(Summary& summary, std::string_view name) {
    return rowOf(summary.methods, name);
}
BackendRow& backendRow(Summary& summary, std::string_view name) {
    return rowOf(summary.backends, name);
}
CallerRow& callerRow(Summary& summary, std::string_view name) {
    return rowOf(summary.callers, name);
}
ExceptionRow& exceptionRow(Summary& summary, std::string_view name) {
    return rowOf(summary.exceptions, name);
}

}  // namespace vx::collector
