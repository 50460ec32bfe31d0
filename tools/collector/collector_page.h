// The web page of a collector: everything behind --http, put together.
//
// Lifetime  Ends before the collector does.
// Threads   start() and the end by the main thread; a thread of its own serves.
#pragma once

#include <memory>
#include <string>

#include "tools/collector/collector_options.h"
#include "tools/collector/page_api.h"
#include "tools/collector/page_server.h"

namespace vx::collector {

class CollectorPage {
public:
    // `store` null: none. What is handed in outlives this.
    CollectorPage(const Options& options, const StatusBoard& board, const Store* store);
    ~CollectorPage();
    CollectorPage(const CollectorPage&) = delete;
    CollectorPage& operator=(const CollectorPage&) = delete;

    // False with the reason in `error`.
    bool start(std::string& error);
    // As a browser on this machine asks for it.
    std::string address() const;

private:
    bool openStore(std::string& error);

    const Options& options_;
    const StatusBoard& board_;
    const Store* const store_;
    std::unique_ptr<StoreQuery> query_;
    std::unique_ptr<PageRules> rules_;
    std::unique_ptr<PageGuard> guard_;
    std::unique_ptr<PageApi> api_;
    std::unique_ptr<PageServer> server_;  // the last member: it uses the others
};

}  // namespace vx::collector
