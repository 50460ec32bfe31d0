#include "tools/agent/cli_traffic.h"

#include <array>
#include <cstdio>

#include "commonlibc/vxlb_clock.h"

namespace vx::agent {
namespace {

constexpr auto kAreas = std::to_array<const char*>({"shop", "account", "search", "admin", "api"});
constexpr auto kClasses = std::to_array<const char*>({"Cart", "Order", "User", "Catalog", "Payment", "Mail"});
constexpr auto kExceptions =
    std::to_array<const char*>({"Timeout", "OutOfStock", "InvalidState", "NotFound", "Refused"});
constexpr int kStatusOk = 200, kStatusError = 500;
constexpr double kSlowFromMs = 3000, kSlowToMs = 8000;

}  // namespace

Traffic::Traffic(const TrafficShape& shape, unsigned seed)
    : shape_(shape), lot_(seed), kinds_(shape.mix.begin(), shape.mix.end()) {
    for (std::size_t i = 0; i < static_cast<std::size_t>(shape.methods); ++i)
        methods_.push_back("com.example." + std::string(kAreas[i % kAreas.size()]) + "." +
                           kClasses[i % kClasses.size()] + ".method" + std::to_string(i));
    for (std::size_t i = 0; i < static_cast<std::size_t>(shape.urls); ++i)
        urls_.push_back("/" + std::string(kAreas[i % kAreas.size()]) + "/page" + std::to_string(i));
}

bool Traffic::happens(double percent) {
    return percent > 0 && std::uniform_real_distribution<double>(0, 100)(lot_) < percent;
}

std::int64_t Traffic::drawDurationUs() {
    const double ms = happens(shape_.slowPct)
                          ? std::uniform_real_distribution<double>(kSlowFromMs, kSlowToMs)(lot_)
                          : std::exponential_distribution<double>(1 / shape_.meanMs)(lot_) + 1;
    return static_cast<std::int64_t>(ms * 1000);
}

// The chain that a caller sends along: its transaction, time and sequence, its id, two fields of its own, and
// its tier, instance and server.
std::string Traffic::drawChain(std::int64_t startUs) {
    const std::string caller = std::to_string(1 + lot_() % static_cast<unsigned>(shape_.callers));
    return std::to_string(1 + lot_()) + "_" + std::to_string(startUs / 1000) + "_" +
           std::to_string(1 + lot_() % 100) + "_" + caller + "_0_0_Front_front" + caller + "_fronthost" +
           caller;
}

void Traffic::report(vxagent* agent) {
    const std::int64_t durationUs = drawDurationUs(), endUs = vxlb_now_us();
    const int status = happens(shape_.errorPct) ? kStatusError : kStatusOk;
    const std::string url = draw(urls_) + "?id=" + std::to_string(lot_() % 1000);
    vxagent_transaction transaction{};
    transaction.url = url.c_str();
    transaction.method = lot_() % 4 ? "GET" : "POST";
    transaction.start_us = endUs - durationUs;
    const std::string chain = happens(shape_.chainPct) ? drawChain(transaction.start_us) : "";
    if (!chain.empty()) transaction.caller = chain.c_str();
    const std::int64_t number = vxagent_begin(agent, &transaction);
    if (!number) return;
    ++counts_.transactions;
    counts_.chained += !chain.empty();
    const bool headers = happens(shape_.headerPct);
    counts_.headers += headers;
    if (headers) reportRequestHeaders(agent, number);
    reportCalls(agent, number, transaction.start_us, durationUs);
    if (headers) {
        const vxagent_header type{"Content-Type", "text/html; charset=utf-8"};
        vxagent_response_headers(agent, number, status, &type, 1);
    }
    vxagent_end(agent, number, status, endUs, durationUs / 4);
}

// Opens a method at each step, and closes the innermost one where `depth` is reached.
void Traffic::reportCalls(vxagent* agent, std::int64_t transaction, std::int64_t startUs,
                          std::int64_t durationUs) {
    const auto calls = static_cast<std::int64_t>(shape_.calls),
               callouts = static_cast<std::int64_t>(shape_.callouts), all = calls + callouts;
    Clock clock{startUs, durationUs / (2 * all + 2)};
    for (std::int64_t i = 0; i < all; ++i) {
        if ((i + 1) * callouts / all > i * callouts / all) {
            reportCallout(agent, transaction, clock);
            continue;
        }
        openMethod(agent, transaction, clock);
        if (open_.size() >= static_cast<std::size_t>(shape_.depth)) closeMethod(agent, transaction, clock);
    }
    while (!open_.empty()) closeMethod(agent, transaction, clock);
}

void Traffic::openMethod(vxagent* agent, std::int64_t transaction, Clock& clock) {
    clock.nowUs += clock.stepUs;
    open_.push_back(&draw(methods_));
    openedUs_.push_back(clock.nowUs);
    vxagent_enter(agent, transaction, open_.back()->c_str(), clock.nowUs);
}

void Traffic::closeMethod(vxagent* agent, std::int64_t transaction, Clock& clock) {
    clock.nowUs += clock.stepUs;
    vxagent_method method{};
    method.name = open_.back()->c_str();
    method.wall_us = clock.nowUs - openedUs_.back();
    method.end_us = clock.nowUs;
    leave(agent, transaction, method);
    open_.pop_back();
    openedUs_.pop_back();
}

void Traffic::reportCallout(vxagent* agent, std::int64_t transaction, Clock& clock) {
    const CalloutKind& kind = kCalloutKinds[kinds_(lot_)];
    const std::string backend =
        std::string(kind.backend) + std::to_string(1 + lot_() % static_cast<unsigned>(shape_.backends));
    clock.nowUs += clock.stepUs;
    vxagent_enter(agent, transaction, kind.method, clock.nowUs);
    clock.nowUs += clock.stepUs;
    vxagent_method method{};
    method.name = kind.method;
    method.backend = backend.c_str();
    method.status = happens(shape_.calloutErrorPct) ? kStatusError : kStatusOk;
    method.wall_us = clock.stepUs;
    method.end_us = clock.nowUs;
    method.callout = 1;
    ++counts_.callouts;
    leave(agent, transaction, method);
}

// Beside the usual ones the trace context that a caller passes on.
void Traffic::reportRequestHeaders(vxagent* agent, std::int64_t transaction) {
    const unsigned long high = lot_() | 1U, low = lot_(), span = lot_() | 1U;
    char trace[64];
    std::snprintf(trace, sizeof(trace), "00-%016lx%016lx-%016lx-01", high, low, span);
    const auto headers = std::to_array<vxagent_header>({{"Host", "shop.example"},
                                                        {"User-Agent", "load/1 (a, b; c=d & e)"},
                                                        {"Accept", "text/html,*/*;q=0.8"},
                                                        {"traceparent", trace}});
    vxagent_request_headers(agent, transaction, headers.data(), headers.size());
}

void Traffic::reportException(vxagent* agent, std::int64_t transaction, const vxagent_method& method) {
    const std::uint64_t number = lot_() % static_cast<unsigned>(shape_.exceptionClasses);
    const std::string name = "com.example." + std::string(kExceptions[number % kExceptions.size()]) +
                             "Exception" + std::to_string(number),
                      stack = std::string(method.name) + "(Shop.java:" + std::to_string(number + 1) +
                              ")\ncom.example.Dispatcher.serve(Dispatcher.java:12)";
    vxagent_exception exception{};
    exception.class_name = name.c_str();
    exception.message = "it did not work out, as drawn by lot";
    exception.throwing_class = "com.example.Shop";
    exception.method = method.name;
    exception.stack_trace = stack.c_str();
    exception.time_us = method.end_us;
    vxagent_report_exception(agent, transaction, &exception);
}

void Traffic::leave(vxagent* agent, std::int64_t transaction, const vxagent_method& method) {
    vxagent_method left = method;
    left.cpu_us = method.wall_us / 4;
    if (happens(shape_.exceptionPct)) {
        ++counts_.exceptions;
        reportException(agent, transaction, left);
        vxagent_leave_by_exception(agent, transaction, &left);
    } else {
        vxagent_leave(agent, transaction, &left);
    }
}

}  // namespace vx::agent
