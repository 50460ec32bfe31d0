// The rules on the page: what they say, why a request gets its BT, what an edit would move, and saving it.
//
// What is tried and previewed is read by the service's own parsers and matched by its own machines, in
// contexts made for the question.
//
// Limits    A text of at most kMostRulesText bytes; the last kPreviewed stored transactions.
// Threads   The page server's.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tools/collector/collector_files.h"
#include "tools/collector/page_request.h"
#include "tools/collector/store_query.h"

namespace vx::collector {

inline constexpr std::size_t kMostRulesText = 256 * 1024;
inline constexpr std::size_t kPreviewed = 1000;

// Where previews take their requests from: fills `out` with the latest ones; false when they cannot be had.
using RecentRequests = std::function<bool(std::size_t most, std::vector<RequestRow>& out)>;

class PageRules {
public:
    // The folder whose files are handed out (empty: none, nothing can be saved).
    explicit PageRules(std::string folder, RecentRequests recent = nullptr)
        : folder_(std::move(folder)), recent_(std::move(recent)) {}

    bool editable() const { return !folder_.empty(); }
    PageAnswer show() const;
    PageAnswer tryOut(const PageRequest& request) const;
    PageAnswer preview(const PageRequest& request) const;
    PageAnswer save(const PageRequest& request) const;

private:
    std::string path() const { return folder_ + "/" + kRulesFile; }
    // The rules in force. `fault` is set when they cannot be read or are too long for the page, `locked` when
    // they cannot be replaced.
    struct Held {
        bool present = false;
        std::int64_t version = 0;
        std::string text, fault, locked;
    };
    Held held() const;

    const std::string folder_;
    const RecentRequests recent_;
};

}  // namespace vx::collector
