#include <algorithm>
#include <array>
#include <cstdio>

#include "commonlibc/vxlb_clock.h"
#include "tools/agent/cli_modes.h"
#include "tools/agent/vxagent_follow.h"
#include "tools/agent/vxagent_log_line.h"

namespace vx::agent {
namespace {

constexpr std::int64_t kPollUs = 50000;
constexpr int kLingerMs = 5000;
constexpr std::size_t kLinesBetweenLooks = 64;

struct AccessLogOptions {
    CommonOptions common;
    std::string file, label = "nginx";
    bool follow = false, once = false, fromStart = false;
};

struct Counts {
    std::uint64_t lines = 0, broken = 0, transactions = 0, skipped = 0, callouts = 0, exceptions = 0;
};

struct FailureRow {
    int status;
    const char *name, *message;
};
constexpr int kFailureFrom = 500;
constexpr auto kFailures = std::to_array<FailureRow>({
    {500, "InternalServerError", "the request could not be handled"},
    {502, "BadGateway", "a server behind did not answer as it should"},
    {503, "ServiceUnavailable", "not to be had for the time being"},
    {504, "GatewayTimeout", "a server behind did not answer in time"},
});
constexpr FailureRow kOtherFailure{0, "ServerError", "the request failed"};

void leave(vxagent* agent, std::int64_t number, const std::string& name, int status, std::int64_t wallUs,
           std::int64_t endUs) {
    vxagent_method left{};
    left.name = name.c_str();
    left.status = status;
    left.wall_us = wallUs;
    left.end_us = endUs;
    vxagent_leave(agent, number, &left);
}

// The servers that were asked, one after the other; the last answered when the request ended.
void reportUpstreams(vxagent* agent, std::int64_t number, const LogLine& line, const std::string& label,
                     std::int64_t start, std::int64_t end) {
    const std::string name = label + ".upstream";
    std::int64_t at = end;
    for (std::size_t i = 0; i < line.upstreamCount; ++i) at -= line.upstreams[i].durationUs;
    for (std::size_t i = 0; i < line.upstreamCount; ++i) {
        const Upstream& upstream = line.upstreams[i];
        const std::string backend(upstream.address);
        vxagent_enter(agent, number, name.c_str(), std::max(at, start));
        at += upstream.durationUs;
        vxagent_method left{};
        left.name = name.c_str();
        left.status = upstream.status;
        left.backend = backend.c_str();
        left.wall_us = upstream.durationUs;
        left.end_us = std::max(at, start);
        left.callout = 1;
        vxagent_leave(agent, number, &left);
    }
}

const FailureRow& failureOf(int status) {
    const auto* const found = std::find_if(kFailures.begin(), kFailures.end(),
                                           [status](const FailureRow& row) { return row.status == status; });
    return found == kFailures.end() ? kOtherFailure : *found;
}

// A request that the server answers with 5xx failed by an exception, whose stack are the servers asked and
// the request itself.
void reportFailure(vxagent* agent, std::int64_t number, const LogLine& line, const std::string& label,
                   const std::string& method, std::int64_t end) {
    const FailureRow& failure = failureOf(line.status);
    const std::string name = label + "." + failure.name;
    std::string stack;
    for (std::size_t i = line.upstreamCount; i-- > 0;)
        stack.append(label)
            .append(".upstream(")
            .append(line.upstreams[i].address)
            .append(") answered ")
            .append(std::to_string(line.upstreams[i].status))
            .append("\n");
    stack.append(method).append("(").append(line.url.substr(0, line.url.find('?'))).append(")\n");
    stack.append(label).append(".request");
    vxagent_exception exception{};
    exception.class_name = name.c_str();
    exception.message = failure.message;
    exception.throwing_class = label.c_str();
    exception.method = method.c_str();
    exception.stack_trace = stack.c_str();
    exception.time_us = end;
    vxagent_report_exception(agent, number, &exception);
}

void reportHeaders(vxagent* agent, std::int64_t number, const LogLine& line, bool ofResponse) {
    std::vector<std::string> values;
    values.reserve(line.headers.size());
    std::vector<vxagent_header> headers;
    for (const LogHeader& header : line.headers) {
        if (header.ofResponse != ofResponse) continue;
        values.push_back(plainText(header.value));
        headers.push_back({header.name.c_str(), values.back().c_str()});
    }
    if (headers.empty()) return;
    if (ofResponse) {
        vxagent_response_headers(agent, number, line.status, headers.data(), headers.size());
    } else {
        vxagent_request_headers(agent, number, headers.data(), headers.size());
    }
}

// A request is one method that holds another, named by the request's method: "nginx.request", "nginx.GET".
// What was asked of other servers stands inside: "nginx.upstream".
void report(vxagent* agent, const LogLine& line, const std::string& label, Counts& counts) {
    const std::int64_t end = endOf(line, vxlb_now_us()), start = end - line.durationUs;
    const std::string url(line.url), method(line.method);
    const std::string outer = label + ".request", inner = methodNameOf(line, label);
    vxagent_transaction transaction{};
    transaction.url = url.c_str();
    transaction.method = method.c_str();
    transaction.start_us = start;
    const std::int64_t number = vxagent_begin(agent, &transaction);
    ++(number ? counts.transactions : counts.skipped);
    if (!number) return;
    counts.callouts += line.upstreamCount;
    reportHeaders(agent, number, line, false);
    vxagent_enter(agent, number, outer.c_str(), start);
    vxagent_enter(agent, number, inner.c_str(), start);
    reportUpstreams(agent, number, line, label, start, end);
    if (line.status >= kFailureFrom) {
        ++counts.exceptions;
        reportFailure(agent, number, line, label, inner, end);
    }
    reportHeaders(agent, number, line, true);
    leave(agent, number, inner, line.status, line.durationUs, end);
    leave(agent, number, outer, line.status, line.durationUs, end);
    vxagent_end(agent, number, line.status, end, 0);
}

void reportLines(vxagent* agent, LineFollower& follower, const AccessLogOptions& options, Counts& counts) {
    std::string text;
    while (!stopRequested() && follower.next(text)) {
        LogLine line;
        if (++counts.lines % kLinesBetweenLooks == 0) waitForRoom(agent);
        if (parseLogLine(text, line)) {
            report(agent, line, options.label, counts);
        } else {
            ++counts.broken;
        }
    }
}

void printCounts(const vxagent* agent, const Counts& counts) {
    vxagent_statistics now;
    vxagent_get_statistics(agent, &now);
    std::printf(
        "lines=%llu transactions=%llu callouts=%llu exceptions=%llu skipped=%llu broken=%llu records=%llu "
        "bytes=%llu dropped=%llu reconnects=%llu\n",
        static_cast<unsigned long long>(counts.lines), static_cast<unsigned long long>(counts.transactions),
        static_cast<unsigned long long>(counts.callouts), static_cast<unsigned long long>(counts.exceptions),
        static_cast<unsigned long long>(counts.skipped), static_cast<unsigned long long>(counts.broken),
        static_cast<unsigned long long>(now.sent_records), static_cast<unsigned long long>(now.sent_bytes),
        static_cast<unsigned long long>(now.dropped), static_cast<unsigned long long>(now.reconnects));
}

int followLog(vxagent* agent, const AccessLogOptions& options) {
    const bool all = options.once || options.fromStart;
    LineFollower follower(options.file, all ? LineFollower::From::kStart : LineFollower::From::kEnd);
    if (options.once && !follower.opened()) {
        std::fprintf(stderr, "vxagent access-log: cannot read '%s'\n", options.file.c_str());
        return kExitFailed;
    }
    // What is written while the proxy does not ask yet waits in the file.
    if (!waitUntilSending(agent, options.once ? options.common.waitSeconds : 0)) {
        std::fputs("vxagent access-log: the proxy did not ask for records\n", stderr);
        return options.once ? kExitFailed : kExitOk;
    }
    Counts counts;
    do {
        reportLines(agent, follower, options, counts);
        if (!options.once) vxlb_sleep_us(kPollUs);
    } while (!options.once && !stopRequested());
    vxagent_flush(agent, kLingerMs);
    printCounts(agent, counts);
    return kExitOk;
}

}  // namespace

int runAccessLog(int argc, char** argv) {
    AccessLogOptions given;
    given.common.agent = "nginx";
    std::vector<Option> options = {
        {"--file", "FILE",
         "the log: combined format with the request's seconds as last field. Fields like "
         "upstream_addr=\"..\" "
         "in front of them (also upstream_status, upstream_response_time) make callouts, http_NAME=\"..\" "
         "and "
         "sent_http_NAME=\"..\" headers; a status of 500 and above comes with an exception",
         OptionKind::kText, &given.file, true},
        {"--follow", nullptr, "reports what is written from now on, until a signal", OptionKind::kFlag,
         &given.follow},
        {"--once", nullptr, "reports what the file holds and ends (without --follow the default)",
         OptionKind::kFlag, &given.once},
        {"--from-start", nullptr, "follows from the file's beginning", OptionKind::kFlag, &given.fromStart},
        {"--label", "NAME", "first part of the method names (nginx)", OptionKind::kText, &given.label},
    };
    for (const Option& option : commonOptions(given.common)) options.push_back(option);
    int code = kExitOk;
    if (!readOptions("access-log", options, argc, argv, code)) return code;
    if (!checkCommon("access-log", given.common)) return kExitUsage;
    given.once = given.once || !given.follow;
    catchSignals();
    vxagent* agent = openAgent(given.common);
    if (!agent) return kExitFailed;
    code = followLog(agent, given);
    vxagent_close(agent, kLingerMs);
    return code;
}

}  // namespace vx::agent
