// Orders for one instance, one at a time: the next goes out when the one before has its answer.
//
// An instance that fetches a file in the midst of an order throws away every other line that it reads then,
// so an order sent at that time would be lost. Start, stop and modify have answers; an answer that does not
// come (a start of what runs already has none) is given up kAnswerWait after the instance's last sign of
// life.
//
// Limits    kMaxOrders wait; one more is refused.
// Threads   One.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

namespace vx::collector {

inline constexpr std::size_t kMaxOrders = 256;
inline constexpr std::chrono::seconds kAnswerWait{10};

class Orders {
public:
    using Time = std::chrono::steady_clock::time_point;

    // False when too many wait.
    bool add(std::string line, bool hasAnswer);
    // Takes the order that may go out now; false when there is none.
    bool next(std::string& line, Time now);
    // A line came from the instance.
    void heard(std::string_view line, Time now);
    // Something of an answer to the instance is still on its way out.
    void stillSending(Time now) { answerBy_ = now + kAnswerWait; }
    bool idle() const { return !waiting_ && orders_.empty(); }

private:
    struct Order {
        std::string line;
        bool hasAnswer;
    };
    std::deque<Order> orders_;
    bool waiting_ = false;  // for an answer
    Time answerBy_{};
};

}  // namespace vx::collector
