// Requests for the page: a line of path and query, one of headers, and a body. Whatever they say, there is an
// answer, and its body is JSON or of the program itself.
#include <apr_general.h>
#include <jansson.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/support/bare_context.h"
#include "tools/collector/page_api.h"

namespace {

using namespace vx::collector;
using vx::test::require;

std::string takeLine(std::string& text) {
    const std::string line = text.substr(0, text.find('\n'));
    text.erase(0, line.size() + 1);
    return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const apr_status_t ready = apr_initialize();
    static const PageRules rules("", [](std::size_t, std::vector<RequestRow>& out) {
        out = {{1, "Shop", "/shop", "x=1", {{"S", "e&"}}}, {2, "Others", "", "", {}}};
        return true;
    });
    static const StatusBoard board;
    static const PageFile files[] = {{"/index.html", "text/html", "<html>"}};
    require(ready == APR_SUCCESS);
    std::string text(reinterpret_cast<const char*>(data), size);
    const std::string target = takeLine(text), headers = takeLine(text);
    PageRequest request;
    request.path = target.substr(0, target.find('?'));
    request.arguments =
        formFields(std::string_view(target).substr(std::min(request.path.size() + 1, target.size())));
    request.post = headers.starts_with("POST");
    request.host = headers.find("evil") == headers.npos ? "localhost" : headers;
    request.authorization = request.cookie = headers;
    request.contentType = headers.ends_with("text") ? headers : "application/json";
    request.body = text;

    PageGuard guard(headers.find("token") == headers.npos ? "" : "0123456789abcdef", {"here"});
    PageApi api({&board, nullptr, nullptr, &rules, &guard, files});
    const PageAnswer answer = api.answer(request, 7);
    require(answer.status >= 200 && answer.status < 600);
    if (answer.type != "application/json") return 0;
    json_t* root = json_loads(answer.body.c_str(), 0, nullptr);
    require(root != nullptr);
    json_decref(root);
    return 0;
}
