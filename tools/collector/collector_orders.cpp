#include "tools/collector/collector_orders.h"

#include <algorithm>
#include <array>

namespace vx::collector {

namespace {

constexpr auto kAnswers = std::to_array<std::string_view>({
    "vx_control_rep:action=start_instrumentation;",
    "vx_control_rep:action=stop_instrumentation;",
    "vx_control_rep:action=modify;",
    "vx_control_rep:result=Error:",
});

}  // namespace

bool Orders::add(std::string line, bool hasAnswer) {
    if (orders_.size() >= kMaxOrders) return false;
    orders_.push_back({std::move(line), hasAnswer});
    return true;
}

bool Orders::next(std::string& line, Time now) {
    if (waiting_ && now >= answerBy_) waiting_ = false;
    if (waiting_ || orders_.empty()) return false;
    line = std::move(orders_.front().line);
    waiting_ = orders_.front().hasAnswer;
    answerBy_ = now + kAnswerWait;
    orders_.pop_front();
    return true;
}

void Orders::heard(std::string_view line, Time now) {
    answerBy_ = now + kAnswerWait;
    if (std::any_of(kAnswers.begin(), kAnswers.end(),
                    [line](std::string_view answer) { return line.starts_with(answer); }))
        waiting_ = false;
}

}  // namespace vx::collector
