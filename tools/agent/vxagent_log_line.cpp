#include "tools/agent/vxagent_log_line.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>

namespace vx::agent {
namespace {

constexpr std::int64_t kSecondUs = 1000000;
constexpr std::int64_t kLongestSeconds = 1000000;
constexpr int kStatusNoAnswer = 502;
constexpr auto kMonths = std::to_array<std::string_view>(
    {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"});
constexpr auto kMethods = std::to_array<std::string_view>(
    {"GET", "HEAD", "POST", "PUT", "DELETE", "PATCH", "OPTIONS", "CONNECT", "TRACE"});

// Takes exactly `digits` digits off the front.
bool takeNumber(std::string_view& text, std::size_t digits, int& out) {
    if (text.size() < digits) return false;
    const char* end = text.data() + digits;
    int value = 0;
    const auto [at, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || at != end || value < 0) return false;
    out = value;
    text.remove_prefix(digits);
    return true;
}
bool takeByte(std::string_view& text, char byte) {
    if (text.empty() || text.front() != byte) return false;
    text.remove_prefix(1);
    return true;
}
// Takes a text in double quotes; a quote behind a backslash belongs to it.
bool takeQuoted(std::string_view& text, std::string_view& out) {
    if (text.empty() || text.front() != '"') return false;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '\\') {
            ++i;
        } else if (text[i] == '"') {
            out = text.substr(1, i - 1);
            text.remove_prefix(i + 1);
            return true;
        }
    }
    return false;
}

// A field behind a blank: a value, perhaps in quotes, perhaps behind "name=".
bool takeField(std::string_view& text, std::string_view& name, std::string_view& value) {
    if (!takeByte(text, ' ')) return false;
    const std::size_t named = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_");
    name = {};
    if (named != std::string_view::npos && named > 0 && text[named] == '=') {
        name = text.substr(0, named);
        text.remove_prefix(named + 1);
    }
    if (takeQuoted(text, value)) return true;
    value = text.substr(0, text.find(' '));
    if (value.empty() || value.front() == '"') return false;
    text.remove_prefix(value.size());
    return true;
}

bool takeMonth(std::string_view& text, unsigned& month) {
    for (std::size_t i = 0; i < kMonths.size(); ++i) {
        if (!text.starts_with(kMonths[i])) continue;
        month = static_cast<unsigned>(i + 1);
        text.remove_prefix(kMonths[i].size());
        return true;
    }
    return false;
}

// "21/Nov/2026:09:05:06 +0100" to Unix microseconds.
bool parseTime(std::string_view text, std::int64_t& out) {
    int day = 0, year = 0, hour = 0, minute = 0, second = 0, zoneHours = 0, zoneMinutes = 0;
    unsigned month = 0;
    const bool dated = takeNumber(text, 2, day) && takeByte(text, '/') && takeMonth(text, month) &&
                       takeByte(text, '/') && takeNumber(text, 4, year);
    const bool timed = dated && takeByte(text, ':') && takeNumber(text, 2, hour) && takeByte(text, ':') &&
                       takeNumber(text, 2, minute) && takeByte(text, ':') && takeNumber(text, 2, second) &&
                       takeByte(text, ' ');
    if (!timed || hour > 23 || minute > 59 || second > 60) return false;
    const bool west = !text.empty() && text.front() == '-';
    if (!takeByte(text, west ? '-' : '+') || !takeNumber(text, 2, zoneHours) ||
        !takeNumber(text, 2, zoneMinutes) || !text.empty())
        return false;
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok()) return false;
    const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
    const std::int64_t zone = (zoneHours * 60 + zoneMinutes) * 60;
    out = (days * 86400 + hour * 3600 + minute * 60 + second - (west ? -zone : zone)) * kSecondUs;
    return true;
}

// "1.25" to microseconds; more than six decimals are cut.
bool parseDuration(std::string_view text, std::int64_t& out) {
    std::int64_t seconds = 0, fraction = 0, unit = kSecondUs;
    const char* end = text.data() + text.size();
    auto [at, error] = std::from_chars(text.data(), end, seconds);
    if (error != std::errc() || seconds < 0 || seconds > kLongestSeconds) return false;
    if (at != end && *at++ != '.') return false;
    for (; at != end; ++at) {
        if (*at < '0' || *at > '9') return false;
        unit /= 10;
        fraction += (*at - '0') * unit;
    }
    out = seconds * kSecondUs + fraction;
    return true;
}

// Takes the value of one server off a list; false at its end.
bool takeListed(std::string_view& list, std::string_view& value) {
    if (list.empty()) return false;
    const std::size_t end = std::min({list.find(", "), list.find(" : "), list.size()});
    value = list.substr(0, end);
    list.remove_prefix(std::min(list.size(), end + (end < list.size() && list[end] == ',' ? 2 : 3)));
    return true;
}

struct UpstreamLists {
    std::string_view addresses, statuses, durations;
};

void keepUpstreamField(std::string_view name, std::string_view value, UpstreamLists& lists) {
    if (name == "upstream_addr") lists.addresses = value;
    if (name == "upstream_status") lists.statuses = value;
    if (name == "upstream_response_time") lists.durations = value;
}

// "content_type" to "Content-Type".
std::string headerName(std::string_view variable) {
    std::string out(variable);
    bool first = true;
    for (char& byte : out) {
        if (first && byte >= 'a' && byte <= 'z') byte = static_cast<char>(byte - 'a' + 'A');
        first = byte == '_';
        if (first) byte = '-';
    }
    return out;
}

// Field `number` behind the size: the combined format has referer and user agent there, in quotes.
void keepHeaderField(std::string_view name, std::string_view value, int number, LogLine& out) {
    constexpr std::string_view kRequest = "http_", kResponse = "sent_http_";
    const bool ofResponse = name.starts_with(kResponse);
    if (value.empty() || value == "-" || out.headers.size() == kLogHeadersMax) return;
    const bool quoted = value.data()[-1] == '"';
    if (name.empty() && quoted && (number == 1 || number == 2))
        name = number == 1 ? "http_referer" : "http_user_agent";
    if (!ofResponse && !name.starts_with(kRequest)) return;
    name.remove_prefix(ofResponse ? kResponse.size() : kRequest.size());
    out.headers.push_back({headerName(name), value, ofResponse});
}

void splitUpstreams(UpstreamLists lists, LogLine& out) {
    std::string_view address;
    while (out.upstreamCount < kUpstreamsMax && takeListed(lists.addresses, address)) {
        Upstream upstream{address, kStatusNoAnswer, 0};
        std::string_view text;
        if (takeListed(lists.statuses, text)) takeNumber(text, 3, upstream.status);
        if (takeListed(lists.durations, text) && !parseDuration(text, upstream.durationUs))
            upstream.durationUs = 0;
        if (!address.empty() && address != "-") out.upstreams[out.upstreamCount++] = upstream;
    }
}

void splitRequest(std::string_view request, LogLine& out) {
    const std::size_t first = request.find(' ');
    out.method = {};
    out.url = request;
    if (first == std::string_view::npos) return;
    out.method = request.substr(0, first);
    out.url = request.substr(first + 1);
    const std::size_t last = out.url.rfind(" HTTP/");
    if (last != std::string_view::npos) out.url = out.url.substr(0, last);
}

}  // namespace

bool parseLogLine(std::string_view line, LogLine& out) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
    const std::size_t opened = line.find(" [");
    const std::size_t closed = line.find("] ", opened == std::string_view::npos ? line.size() : opened);
    if (closed == std::string_view::npos) return false;
    LogLine parsed;
    if (!parseTime(line.substr(opened + 2, closed - opened - 2), parsed.endUs)) return false;
    line.remove_prefix(closed + 2);
    std::string_view request;
    if (!takeQuoted(line, request) || !takeByte(line, ' ') || !takeNumber(line, 3, parsed.status))
        return false;
    std::string_view name, value;
    UpstreamLists upstreams;
    int fields = 0;
    for (; !line.empty(); ++fields) {
        if (!takeField(line, name, value)) return false;
        keepUpstreamField(name, value, upstreams);
        if (!line.empty()) keepHeaderField(name, value, fields, parsed);
    }
    if (fields < 2 || !parseDuration(value, parsed.durationUs)) return false;
    splitUpstreams(upstreams, parsed);
    splitRequest(request, parsed);
    out = parsed;
    return true;
}

std::int64_t endOf(const LogLine& line, std::int64_t readUs) {
    return std::clamp(readUs, line.endUs, line.endUs + kSecondUs - 1);
}

std::string plainText(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned byte = 0;
        const std::string_view hex = text.substr(std::min(text.size(), i + 2), 2);
        const bool coded = text[i] == '\\' && i + 1 < text.size() && text[i + 1] == 'x' && hex.size() == 2 &&
                           std::from_chars(hex.data(), hex.data() + 2, byte, 16).ptr == hex.data() + 2;
        if (coded) {
            out += static_cast<char>(byte);
            i += 3;
        } else {
            i += text[i] == '\\' && i + 1 < text.size();
            out += text[i];
        }
    }
    return out;
}

std::string methodNameOf(const LogLine& line, std::string_view label) {
    const bool known = std::find(kMethods.begin(), kMethods.end(), line.method) != kMethods.end();
    return std::string(label).append(".").append(known ? line.method : "OTHER");
}

}  // namespace vx::agent
