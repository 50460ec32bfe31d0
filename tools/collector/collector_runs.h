// Instances and their runs, as their connections come and go.
//
//     first data connection --records, reports--> 10 record --auto-sensor connection ends--> compared
//
// A run whose last report cannot come any more is compared as soon as that is clear: when its next run
// begins, or when the instance is given up.
//
// An instance that comes back after it was given up, or goes on while the collector was away, may refer to
// names that it told long ago: it is asked for them, once.
//
// Limits    An instance without a connection is given up after kKeepGone; above kMostInstances the one that
//           went first gives way to a new one.
// Units     Milliseconds since the Unix epoch; who is gone, by the steady clock.
// Threads   One.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/collector/collector_instance.h"
#include "tools/collector/collector_protocol.h"
#include "tools/collector/collector_summary.h"
#include "tools/collector/store_intake.h"

namespace vx::collector {

inline constexpr std::int64_t kKeepGone = 3'600'000;  // what is in flight is given up then, too
inline constexpr std::size_t kMostInstances = 8192;   // more than can be connected

class Runs {
public:
    // The instance of that identity; good while a connection of it is open.
    InstanceState& of(const std::string& identity);
    void opened(StreamKind kind, InstanceState& instance);  // closed() once for each
    // A line behind the connect line.
    void line(StreamKind kind, std::string_view line, InstanceState& instance);
    void closed(StreamKind kind, InstanceState& instance);
    // What a start or modify line says of how much is recorded and monitored.
    void ordered(std::string_view line);
    // What arrives goes there as well.
    void storeIn(StoreIntake* intake) { intake_ = intake; }
    // The time of what comes from now on.
    void turn(std::int64_t now);
    // One line for each run that was compared since the last call.
    std::string takeNews() { return std::exchange(news_, {}); }
    // Instances given up, and those to be asked for their names, since the last call.
    std::vector<std::string> takeGivenUp() { return std::exchange(givenUp_, {}); }
    std::vector<std::string> takeNameless() { return std::exchange(nameless_, {}); }
    Summary& summary() { return summary_; }
    const Summary& summary() const { return summary_; }

private:
    using Instances = std::map<std::string, InstanceState>;

    void judge(InstanceState& instance);
    Instances::iterator giveUp(Instances::iterator at);
    void makeRoom();
    void lookForNames(std::string_view line, InstanceState& instance);

    Instances instances_;
    std::vector<std::string> givenUp_, nameless_;
    Summary summary_;
    std::string news_;
    StoreIntake* intake_ = nullptr;
    std::int64_t now_ = 0, looked_ = 0;
    bool sampled_ = false;  // not every transaction is recorded singly
    char separator_ = '_';
};

}  // namespace vx::collector
