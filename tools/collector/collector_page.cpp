#include "tools/collector/collector_page.h"

#include <apr_general.h>
#include <unistd.h>

#include <chrono>

#include "tools/collector/page_files.h"
#include "tools/collector/store.h"

namespace vx::collector {

namespace {

// The names by which browsers may ask for this machine.
std::vector<std::string> namesOf(const Options& options) {
    char name[256] = "";
    std::vector<std::string> names;
    if (::gethostname(name, sizeof(name) - 1) == 0 && *name) names.emplace_back(name);
    if (!options.httpName.empty()) names.push_back(options.httpName);
    return names;
}

}  // namespace

// Rules are read with pools, by the page's thread.
CollectorPage::CollectorPage(const Options& options, const StatusBoard& board, const Store* store)
    : options_(options), board_(board), store_(store) {
    apr_initialize();
}

CollectorPage::~CollectorPage() {
    server_.reset();
    apr_terminate();
}

bool CollectorPage::openStore(std::string& error) {
    if (!store_) return true;
    query_ = std::make_unique<StoreQuery>();
    if (options_.clickHouse.empty() ? query_->openFile(options_.databaseFile)
                                    : query_->openClickHouse(options_.clickHouse))
        return true;
    error = query_->error();
    return false;
}

bool CollectorPage::start(std::string& error) {
    std::string token;
    if (!options_.httpTokenFile.empty() && !readToken(options_.httpTokenFile, token, error)) return false;
    if (token.empty() && !isLoopback(options_.httpHost)) {
        error =
            "--http-host " + options_.httpHost + " can be reached by others: it needs --http-token-file FILE";
        return false;
    }
    if (!openStore(error)) return false;
    RecentRequests recent;
    if (query_)
        recent = [this](std::size_t most, std::vector<RequestRow>& out) {
            return query_->requests(most, out) != Answered::kFailed;
        };
    rules_ = std::make_unique<PageRules>(options_.filesDir, std::move(recent));
    guard_ = std::make_unique<PageGuard>(std::move(token), namesOf(options_));
    PageApi::Parts parts{&board_, query_.get(), nullptr, rules_.get(), guard_.get(), pageFiles()};
    if (store_) parts.storeStatus = [this] { return store_->status(); };
    api_ = std::make_unique<PageApi>(std::move(parts));
    server_ = std::make_unique<PageServer>(
        options_.httpHost, options_.httpPort,
        [this](const PageRequest& request) {
            const auto now = std::chrono::steady_clock::now().time_since_epoch();
            return api_->answer(request, std::chrono::duration_cast<std::chrono::seconds>(now).count());
        },
        turnOf, PagePatience{});
    return server_->start(error);
}

std::string CollectorPage::address() const {
    const std::string host = options_.httpHost == "0.0.0.0" ? "127.0.0.1" : options_.httpHost;
    return "http://" + host + ":" + std::to_string(server_->port()) + "/";
}

}  // namespace vx::collector
