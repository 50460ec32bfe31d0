// The files of the web page, which the build puts into the program (page/embed.py).
//
// Shape     Sorted by path. A path is what a browser asks for, with its slash: "/index.html",
// "/views/overview.js". Lifetime  That of the program. Threads   Any: nothing is ever written.
#pragma once

#include <span>
#include <string_view>

namespace vx::collector {

struct PageAsset {
    std::string_view path;
    std::string_view contentType;
    std::string_view etag;  // in its quotes; changes with the body
    std::string_view body;
};

std::span<const PageAsset> pageAssets();
// Null for a path that is not there; "/" is "/index.html".
const PageAsset* findPageAsset(std::string_view path);

}  // namespace vx::collector
