#include "tools/agent/cli_traffic.h"

#include <array>

#include "commonlibc/vxlb_clock.h"

namespace vx::agent {
namespace {

constexpr auto kAreas = std::to_array<const char*>({"shop", "account", "search", "admin", "api"});
constexpr auto kClasses = std::to_array<const char*>({"Cart", "Order", "User", "Catalog", "Payment", "Mail"});
constexpr int kStatusOk = 200, kStatusError = 500;
constexpr double kSlowFromMs = 3000, kSlowToMs = 8000;

}  // namespace

Traffic::Traffic(const TrafficShape& shape, unsigned seed) : shape_(shape), lot_(seed) {
    for (std::size_t i = 0; i < static_cast<std::size_t>(shape.methods); ++i)
        methods_.push_back("com.example." + std::string(kAreas[i % kAreas.size()]) + "." +
                           kClasses[i % kClasses.size()] + ".method" + std::to_string(i));
    for (std::size_t i = 0; i < static_cast<std::size_t>(shape.urls); ++i)
        urls_.push_back("/" + std::string(kAreas[i % kAreas.size()]) + "/page" + std::to_string(i));
}

bool Traffic::happens(double percent) {
    return std::uniform_real_distribution<double>(0, 100)(lot_) < percent;
}

std::int64_t Traffic::drawDurationUs() {
    const double ms = happens(shape_.slowPct)
                          ? std::uniform_real_distribution<double>(kSlowFromMs, kSlowToMs)(lot_)
                          : std::exponential_distribution<double>(1 / shape_.meanMs)(lot_) + 1;
    return static_cast<std::int64_t>(ms * 1000);
}

bool Traffic::report(vxagent* agent) {
    const std::int64_t durationUs = drawDurationUs(), endUs = vxlb_now_us();
    const int status = happens(shape_.errorPct) ? kStatusError : kStatusOk;
    const std::string url = draw(urls_) + "?id=" + std::to_string(lot_() % 1000);
    vxagent_transaction transaction{};
    transaction.url = url.c_str();
    transaction.method = lot_() % 4 ? "GET" : "POST";
    transaction.start_us = endUs - durationUs;
    const std::int64_t number = vxagent_begin(agent, &transaction);
    if (!number) return false;
    reportCalls(agent, number, transaction.start_us, durationUs);
    vxagent_end(agent, number, status, endUs, durationUs / 4);
    return true;
}

// Opens a method at each step, and closes the innermost one where `depth` is reached.
void Traffic::reportCalls(vxagent* agent, std::int64_t transaction, std::int64_t startUs,
                          std::int64_t durationUs) {
    const auto calls = static_cast<std::int64_t>(shape_.calls);
    const std::int64_t stepUs = durationUs / (2 * calls + 2);
    std::int64_t nowUs = startUs;
    const auto close = [&] {
        nowUs += stepUs;
        vxagent_method method{};
        method.name = open_.back()->c_str();
        method.wall_us = nowUs - openedUs_.back();
        method.cpu_us = method.wall_us / 4;
        method.end_us = nowUs;
        vxagent_leave(agent, transaction, &method);
        open_.pop_back();
        openedUs_.pop_back();
    };
    for (std::int64_t i = 0; i < calls; ++i) {
        nowUs += stepUs;
        open_.push_back(&draw(methods_));
        openedUs_.push_back(nowUs);
        vxagent_enter(agent, transaction, open_.back()->c_str(), nowUs);
        if (open_.size() >= static_cast<std::size_t>(shape_.depth)) close();
    }
    while (!open_.empty()) close();
}

}  // namespace vx::agent
