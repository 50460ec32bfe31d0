#include "tools/collector/page_assets.h"

#include <algorithm>

namespace vx::collector {

const PageAsset* findPageAsset(std::string_view path) {
    if (path == "/") path = "/index.html";
    const std::span<const PageAsset> all = pageAssets();
    const auto at =
        std::lower_bound(all.begin(), all.end(), path,
                         [](const PageAsset& asset, std::string_view wanted) { return asset.path < wanted; });
    return at != all.end() && at->path == path ? &*at : nullptr;
}

}  // namespace vx::collector
