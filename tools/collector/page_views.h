// The data behind the page, as JSON: one view for each kind of question. docs/page-api.md has their shapes.
//
// Threads   The page server's.
#pragma once

#include <string_view>

#include "tools/collector/page_api.h"

namespace vx::collector {

PageAnswer viewStatus(const PageApi::Parts& parts, const PageRequest& request);
PageAnswer viewTransaction(const PageApi::Parts& parts, std::string_view id);

// What is asked of the store: the members of the answer, and whether that is all.
Answered askOverview(PageParameters& given, StoreQuery& store, JsonText& json);
Answered askTransactions(PageParameters& given, StoreQuery& store, JsonText& json);
Answered askBackends(PageParameters& given, StoreQuery& store, JsonText& json);
Answered askExceptions(PageParameters& given, StoreQuery& store, JsonText& json);
Answered askMonitors(PageParameters& given, StoreQuery& store, JsonText& json);
Answered askReports(PageParameters& given, StoreQuery& store, JsonText& json);
Answered askInstances(PageParameters& given, StoreQuery& store, JsonText& json);
Answered askLinks(PageParameters& given, StoreQuery& store, JsonText& json);

using AskStore = Answered (*)(PageParameters& given, StoreQuery& store, JsonText& json);
// 503 without a store.
PageAnswer answerOfStore(const PageApi::Parts& parts, const PageRequest& request, AskStore ask);
template <AskStore ask>
PageAnswer viewStore(const PageApi::Parts& parts, const PageRequest& request) {
    return answerOfStore(parts, request, ask);
}

}  // namespace vx::collector
