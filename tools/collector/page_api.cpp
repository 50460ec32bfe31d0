#include "tools/collector/page_api.h"

#include <algorithm>

#include "tools/collector/page_json.h"
#include "tools/collector/page_views.h"

namespace vx::collector {

namespace {

constexpr std::int64_t kMostOnPage = 100;  // rows that the page itself asks for at a time
constexpr std::string_view kTransactionPath = "/api/transactions/";
constexpr const char* kLoginPage =
    "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>vxcollector: token</title>"
    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
    "<meta name=\"color-scheme\" content=\"light dark\"><link rel=\"icon\" href=\"/icon.svg\">"
    "<link rel=\"stylesheet\" href=\"/style.css\"><script src=\"/scheme.js\"></script></head>"
    "<body class=\"login\"><main><h1>vxcollector</h1>%s"
    // No action: it posts to its own address, with the fragment that says where the page goes on.
    "<form method=\"post\"><label for=\"token\">Token</label> "
    "<input id=\"token\" name=\"token\" type=\"password\" autocomplete=\"current-password\" required "
    "autofocus> "
    "<button>Show the page</button></form></main></body></html>\n";

// What the login form is drawn with.
bool needsNoToken(std::string_view path) {
    return path == "/style.css" || path == "/scheme.js" || path == "/icon.svg";
}

bool isJson(std::string_view contentType) {
    return contentType == "application/json" || contentType.starts_with("application/json;");
}

PageAnswer seeOther(const char* where) {
    PageAnswer answer;
    answer.status = 303;
    answer.type = "text/plain";
    answer.location = where;
    return answer;
}

PageAnswer loginPage(int status, const char* note) {
    std::string text = kLoginPage;
    text.replace(text.find("%s"), 2, note);
    PageAnswer answer;
    answer.status = status;
    answer.type = "text/html; charset=utf-8";
    answer.body = std::move(text);
    return answer;
}

using View = PageAnswer (*)(const PageApi::Parts& parts, const PageRequest& request);
struct Route {
    std::string_view path;
    bool post;
    View view;
};
constexpr Route kRoutes[] = {
    {"/api/status", false, viewStatus},
    {"/api/overview", false, viewStore<askOverview>},
    {"/api/transactions", false, viewStore<askTransactions>},
    {"/api/backends", false, viewStore<askBackends>},
    {"/api/exceptions", false, viewStore<askExceptions>},
    {"/api/monitors", false, viewStore<askMonitors>},
    {"/api/reports", false, viewStore<askReports>},
    {"/api/instances", false, viewStore<askInstances>},
    {"/api/links", false, viewStore<askLinks>},
    {"/api/rules", false,
     [](const PageApi::Parts& parts, const PageRequest&) { return parts.rules->show(); }},
    {"/api/rules", true,
     [](const PageApi::Parts& parts, const PageRequest& request) { return parts.rules->save(request); }},
    {"/api/rules/try", true,
     [](const PageApi::Parts& parts, const PageRequest& request) { return parts.rules->tryOut(request); }},
    {"/api/rules/preview", true,
     [](const PageApi::Parts& parts, const PageRequest& request) { return parts.rules->preview(request); }},
};

}  // namespace

PageTurn turnOf(const PageRequest& request) {
    if (!request.path.starts_with("/api/") || request.path == "/api/status") return PageTurn::kNow;
    PageParameters given(request);
    const bool many = given.number("limit", 0, 0, INT64_MAX) > kMostOnPage || !given.text("count").empty();
    return many ? PageTurn::kLate : PageTurn::kSoon;
}

PageAnswer PageApi::answer(const PageRequest& request, std::int64_t now) {
    PageGuard& guard = *parts_.guard;
    if (!guard.knowsHost(request.host)) return pageFault(403, "this is not the name of this machine");
    if (request.post && !PageGuard::sameOrigin(request)) return pageFault(403, "asked by another page");
    if (request.path == "/login") return login(request, now);
    const bool data = request.path.starts_with("/api/");
    if (!guard.allows(request, now)) {
        if (needsNoToken(request.path) && !request.post) return file(request);
        return data || request.post ? pageFault(401, "a token is needed") : seeOther("/login");
    }
    if (request.path == "/logout")
        return request.post ? logout(request) : pageFault(405, "only POST is served");
    if (data) return route(request);
    return request.post ? pageFault(405, "only GET is served") : file(request);
}

PageAnswer PageApi::route(const PageRequest& request) {
    const bool single = request.path.starts_with(kTransactionPath);
    if (single && !request.post)
        return viewTransaction(parts_, std::string_view(request.path).substr(kTransactionPath.size()));
    bool known = single;
    for (const Route& route : kRoutes) {
        if (route.path != request.path) continue;
        known = true;
        if (route.post != request.post) continue;
        if (route.post && !isJson(request.contentType))
            return pageFault(415, "the body has to be application/json");
        return route.view(parts_, request);
    }
    return known ? pageFault(405, "not with this method") : pageFault(404, "no such thing");
}

PageAnswer PageApi::file(const PageRequest& request) const {
    const std::string_view path = request.path == "/" ? std::string_view("/index.html") : request.path;
    const auto at = std::find_if(parts_.files.begin(), parts_.files.end(),
                                 [path](const PageFile& row) { return row.path == path; });
    if (at == parts_.files.end()) return pageFault(404, "no such file");
    PageAnswer answer;
    answer.type = at->type;
    answer.bytes = at->bytes;
    return answer;
}

PageAnswer PageApi::login(const PageRequest& request, std::int64_t now) {
    if (parts_.guard->open()) return seeOther("/");
    if (!request.post) return loginPage(200, "");
    std::string token;
    for (const auto& [name, value] : formFields(request.body))
        if (name == "token") token = value;
    const std::string key = parts_.guard->login(token, now);
    if (key.empty()) return loginPage(401, "<p role=\"alert\" class=\"bad\">That is not the token.</p>");
    PageAnswer answer = seeOther("/");
    answer.setCookie = std::string(kSessionCookie) + "=" + key +
                       "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" + std::to_string(kSessionSeconds);
    return answer;
}

PageAnswer PageApi::logout(const PageRequest& request) {
    parts_.guard->logout(request);
    PageAnswer answer = seeOther("/login");
    answer.setCookie = std::string(kSessionCookie) + "=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0";
    return answer;
}

}  // namespace vx::collector
