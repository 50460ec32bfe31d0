// The files of the web page, compiled into the program.
//
// The build turns the page's folder into one source file that defines pageFiles().
//
// Lifetime  Of the process.
// Threads   Any.
#pragma once

#include <span>
#include <string_view>

namespace vx::collector {

struct PageFile {
    std::string_view path;  // as asked for: "/index.html", "/app.js"
    std::string_view type;  // "text/html; charset=utf-8"
    std::string_view bytes;
};
std::span<const PageFile> pageFiles();

}  // namespace vx::collector
