#include "tools/collector/page_body.h"

#include <jansson.h>

#include <memory>

namespace vx::collector {

namespace {

struct JsonRelease {
    void operator()(json_t* value) const { json_decref(value); }
};

struct Member {
    const char* name;
    std::optional<std::string> RuleBody::*member;
};
constexpr Member kMembers[] = {{"text", &RuleBody::text},     {"url", &RuleBody::url},
                               {"method", &RuleBody::method}, {"query", &RuleBody::query},
                               {"digest", &RuleBody::digest}, {"headers", &RuleBody::headers}};

// Pairs as agents send them: what separates is escaped. False: a value is no text.
bool headerPairs(json_t* object, std::string& out) {
    const char* name = nullptr;
    json_t* value = nullptr;
    json_object_foreach(object, name, value) {
        if (!json_is_string(value)) return false;
        out.append(name).push_back('=');
        for (const char* at = json_string_value(value); *at; ++at)
            *at == '&' ? void(out.append("%26")) : out.push_back(*at);
        out.push_back('&');
    }
    return true;
}

}  // namespace

bool readRuleBody(std::string_view body, RuleBody& out, std::string& error) {
    json_error_t where{};
    const std::unique_ptr<json_t, JsonRelease> root(
        json_loadb(body.data(), body.size(), JSON_REJECT_DUPLICATES, &where));
    if (!json_is_object(root.get())) {
        error = root ? "the body is no JSON object" : std::string("the body is no JSON: ") + where.text;
        return false;
    }
    RuleBody read;
    for (const Member& row : kMembers) {
        json_t* value = json_object_get(root.get(), row.name);
        if (!value || json_is_null(value)) continue;
        std::string& text = (read.*row.member).emplace();
        if (json_is_string(value)) {
            text.assign(json_string_value(value), json_string_length(value));
        } else if (!json_is_object(value) || row.member != &RuleBody::headers || !headerPairs(value, text)) {
            error = std::string("'") + row.name + "' is no text";
            return false;
        }
    }
    out = std::move(read);
    return true;
}

}  // namespace vx::collector
