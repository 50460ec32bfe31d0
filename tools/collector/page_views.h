// The data behind the page, as JSON: one view for each kind of question. docs/page-api.md has their shapes.
//
// Threads   The page server's.
#pragma once

#include <string_view>

#include "tools/collector/page_api.h"

namespace vx::collector {

PageAnswer viewStatus(const PageApi::Parts& parts, const PageRequest& request);
// These answer 503 without a store.
PageAnswer viewOverview(const PageApi::Parts& parts, const PageRequest& request);
PageAnswer viewTransactions(const PageApi::Parts& parts, const PageRequest& request);
PageAnswer viewTransaction(const PageApi::Parts& parts, std::string_view id);
PageAnswer viewBackends(const PageApi::Parts& parts, const PageRequest& request);
PageAnswer viewExceptions(const PageApi::Parts& parts, const PageRequest& request);
PageAnswer viewMonitors(const PageApi::Parts& parts, const PageRequest& request);
PageAnswer viewInstances(const PageApi::Parts& parts, const PageRequest& request);
PageAnswer viewLinks(const PageApi::Parts& parts, const PageRequest& request);

}  // namespace vx::collector
