// Answers of the page's server: its files, its login, and the data behind it.
//
// Routes are a table. Whoever may not ask is told so before anything is looked at.
//
// Threads   The page server's.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "tools/collector/page_files.h"
#include "tools/collector/page_guard.h"
#include "tools/collector/page_request.h"
#include "tools/collector/page_rules.h"
#include "tools/collector/page_status.h"
#include "tools/collector/store.h"

namespace vx::collector {

// Files and the status are there; what the page asks the store for comes soon; more than that, late.
PageTurn turnOf(const PageRequest& request);

class PageApi {
public:
    // What it is made of; all outlives it. Null: not there.
    struct Parts {
        const StatusBoard* board = nullptr;
        StoreQuery* store = nullptr;
        std::function<StoreStatus()> storeStatus;  // with a store
        const PageRules* rules = nullptr;
        PageGuard* guard = nullptr;
        std::span<const PageFile> files;
    };
    explicit PageApi(Parts parts) : parts_(std::move(parts)) {}

    // `now` in seconds of the steady clock.
    PageAnswer answer(const PageRequest& request, std::int64_t now);
    const Parts& parts() const { return parts_; }

private:
    PageAnswer route(const PageRequest& request);
    PageAnswer file(const PageRequest& request) const;
    PageAnswer login(const PageRequest& request, std::int64_t now);
    PageAnswer logout(const PageRequest& request);

    const Parts parts_;
};

}  // namespace vx::collector
