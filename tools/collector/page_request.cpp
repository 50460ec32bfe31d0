#include "tools/collector/page_request.h"

#include <charconv>

#include "tools/collector/page_json.h"

namespace vx::collector {

namespace {

int hexDigit(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

}  // namespace

PageAnswer pageFault(int status, std::string_view why) {
    JsonText json;
    json.open('{').put("error", why).close();
    PageAnswer answer;
    answer.status = status;
    answer.body = json.take();
    return answer;
}

PageAnswer jsonAnswer(JsonText& json) {
    if (json.full()) return pageFault(500, "the answer is too large: ask for less");
    PageAnswer answer;
    answer.body = json.take();
    return answer;
}

std::string decodeUrl(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
        const int low = high < 0 ? -1 : hexDigit(text[i + 2]);
        if (text[i] == '%' && low >= 0) {
            out += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            out += text[i] == '+' ? ' ' : text[i];
        }
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> formFields(std::string_view text) {
    std::vector<std::pair<std::string, std::string>> out;
    while (!text.empty()) {
        const std::string_view pair = text.substr(0, text.find('&'));
        text.remove_prefix(std::min(pair.size() + 1, text.size()));
        const std::size_t equals = pair.find('=');
        if (!pair.empty())
            out.emplace_back(decodeUrl(pair.substr(0, equals)),
                             equals == pair.npos ? "" : decodeUrl(pair.substr(equals + 1)));
    }
    return out;
}

std::string_view PageParameters::text(std::string_view name) const {
    for (const auto& [key, value] : request_.arguments)
        if (key == name) return value;
    return {};
}

std::int64_t PageParameters::number(std::string_view name, std::int64_t otherwise, std::int64_t least,
                                    std::int64_t most) {
    const std::string_view given = text(name);
    if (given.empty()) return otherwise;
    std::int64_t value = 0;
    const auto [end, code] = std::from_chars(given.data(), given.data() + given.size(), value);
    if (code == std::errc{} && end == given.data() + given.size() && value >= least && value <= most)
        return value;
    refuse(name);
    return otherwise;
}

}  // namespace vx::collector
