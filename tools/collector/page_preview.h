// How an edit of the rules would move requests.
//
// Each request is named twice: by the rules in force, and by these with the edited text on top, as a running
// instance takes a change. Records do not tell the method of a request; where one of the usual methods leads
// the rules in force to the BT that it has, that one is taken.
//
// Threads   One at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "commonlibc/vxbt/vxbt_rule_reading.h"
#include "tools/collector/page_json.h"
#include "tools/collector/store_query.h"

namespace vx::collector {

inline constexpr std::size_t kMoveExamples = 5;

struct RuleMove {
    std::size_t count = 0;
    std::vector<std::pair<std::int64_t, std::string>> examples;  // id of the transaction, URL with query
};
struct RulePreview {
    std::unique_ptr<VXRuleReading> reading;  // of the edited text alone
    std::size_t looked = 0, moved = 0;
    std::map<std::pair<std::string, std::string>, RuleMove> moves;      // from and to; empty: excluded
    std::map<std::string, std::pair<std::size_t, std::size_t>> counts;  // before and after, by BT
    std::vector<std::string> notes;
};
// `inForce` null: not known; the BT that a request has stands for them. False without memory.
bool makePreview(const std::string* inForce, const std::string& edited,
                 const std::vector<RequestRow>& requests, RulePreview& out);
// Members of an object.
void putPreview(JsonText& json, const RulePreview& preview);

}  // namespace vx::collector
