// One line of an access log, as nginx and Apache write it: combined format, then the request's duration in
// seconds as the last field.
//
//     10.0.0.1 - bob [21/Nov/2026:09:05:06 +0100] "GET /cart?id=1 HTTP/1.1" 200 512 "-" "curl/7" 0.125
//
// With nginx:   log_format timed '$remote_addr - $remote_user [$time_local] "$request" $status '
//                                '$body_bytes_sent "$http_referer" "$http_user_agent" $request_time';
//
// What stands between the size and the duration is not looked at, so the common format serves too, but for
// fields with the names of nginx's variables, in any order:
//
//     upstream_addr="$upstream_addr" upstream_status="$upstream_status"
//     upstream_response_time="$upstream_response_time"
//
// Each holds one value per server that was asked, separated by ", " or " : ". Headers come from the two
// quoted texts of the combined format and from fields such as
//
//     http_host="$http_host" sent_http_content_type="$sent_http_content_type"
//
// Lifetime  The texts borrow from the line.
// Threads   Any; no state.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vx::agent {

inline constexpr std::size_t kUpstreamsMax = 8;  // later ones of a request are left out

struct Upstream {
    std::string_view address;  // as in "10.0.0.1:80" or "unix:/run/app"
    int status = 0;            // 502 when the server gave none
    std::int64_t durationUs = 0;
};

inline constexpr std::size_t kLogHeadersMax = 32;  // later ones of a line are left out

struct LogHeader {
    std::string name;  // as in "Content-Type"
    std::string_view value;
    bool ofResponse;
};

struct LogLine {
    std::string_view method;  // empty when the request line could not be read as one
    std::string_view url;
    int status = 0;
    std::int64_t endUs = 0;  // the logged second, Unix microseconds
    std::int64_t durationUs = 0;
    std::array<Upstream, kUpstreamsMax> upstreams;  // in the order they were asked
    std::size_t upstreamCount = 0;
    std::vector<LogHeader> headers;
};

// False for a line of another form; `out` is then unchanged.
bool parseLogLine(std::string_view line, LogLine& out);
// The request's end: logs count in seconds, so the time of reading is taken where it lies in the logged one,
// and the nearest end of that second where it does not.
std::int64_t endOf(const LogLine& line, std::int64_t readUs);
// What a quoted text of the log stands for: "\x22" and bytes behind a backslash are undone.
std::string plainText(std::string_view text);
// "<label>.<method>" with a method of HTTP, or "<label>.OTHER": a log cannot fill the method table.
std::string methodNameOf(const LogLine& line, std::string_view label);

}  // namespace vx::agent
