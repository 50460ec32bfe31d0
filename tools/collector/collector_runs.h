// Instances and their runs, as their connections come and go.
//
//     first data connection --records, reports--> 10 record --auto-sensor connection ends--> compared
//
// A run whose last report cannot come any more is compared as soon as that is clear: when its next run
// begins.
//
// Threads   One.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "tools/collector/collector_instance.h"
#include "tools/collector/collector_protocol.h"
#include "tools/collector/collector_summary.h"
#include "tools/collector/store_intake.h"

namespace vx::collector {

class Runs {
public:
    // The instance of that identity; good for the life of this.
    InstanceState& of(const std::string& identity);
    void opened(StreamKind kind, InstanceState& instance);
    // A line behind the connect line.
    void line(StreamKind kind, std::string_view line, InstanceState& instance);
    void closed(StreamKind kind, InstanceState& instance);
    // What a start or modify line says of how much is recorded and monitored.
    void ordered(std::string_view line);
    // What arrives goes there as well; `now` of the turns to come, in milliseconds since the Unix epoch.
    void storeIn(StoreIntake* intake) { intake_ = intake; }
    void turn(std::int64_t now) { now_ = now; }
    // One line for each run that was compared since the last call.
    std::string takeNews() { return std::exchange(news_, {}); }
    Summary& summary() { return summary_; }
    const Summary& summary() const { return summary_; }

private:
    void judge(InstanceState& instance);

    std::map<std::string, InstanceState> instances_;
    Summary summary_;
    std::string news_;
    StoreIntake* intake_ = nullptr;
    std::int64_t now_ = 0;
    bool sampled_ = false;  // not every transaction is recorded singly
    char separator_ = '_';
};

}  // namespace vx::collector
