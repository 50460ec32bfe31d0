// The page's answers as tests read them.
#pragma once

#include <jansson.h>

#include <cstdlib>
#include <string>

#include "tools/collector/page_request.h"

namespace vx::test {

inline collector::PageRequest pageGet(const std::string& pathAndQuery) {
    collector::PageRequest request;
    const std::size_t mark = pathAndQuery.find('?');
    request.path = pathAndQuery.substr(0, mark);
    if (mark != std::string::npos) request.arguments = collector::formFields(pathAndQuery.substr(mark + 1));
    request.host = "127.0.0.1:8080";
    return request;
}

inline collector::PageRequest pagePost(const std::string& path, const std::string& body) {
    collector::PageRequest request = pageGet(path);
    request.post = true;
    request.body = body;
    request.contentType = "application/json";
    return request;
}

// JSON without blanks, members in the order of their names.
inline std::string compactJson(const std::string& body) {
    json_t* root = json_loads(body.c_str(), 0, nullptr);
    char* text = json_dumps(root, JSON_COMPACT | JSON_SORT_KEYS);
    std::string out = text ? text : "no JSON: " + body;
    std::free(text);
    json_decref(root);
    return out;
}

}  // namespace vx::test
