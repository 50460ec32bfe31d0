#include "tools/collector/collector_runs.h"

#include <iterator>

#include "commonlibc/vxlb_clock.h"
#include "tools/collector/collector_records.h"

namespace vx::collector {

namespace {

constexpr std::int64_t kLookEvery = 60'000;

}  // namespace

InstanceState& Runs::of(const std::string& identity) {
    const auto found = instances_.find(identity);
    if (found != instances_.end()) return found->second;
    makeRoom();
    InstanceState& instance = instances_[identity];
    instance.name = identity;
    instance.leftAt = vxlb_steady_ms();
    if (intake_) intake_->recall(instance);
    return instance;
}

void Runs::turn(std::int64_t now) {
    now_ = now;
    const std::int64_t steady = vxlb_steady_ms();
    if (steady < looked_ + kLookEvery) return;
    looked_ = steady;
    for (auto at = instances_.begin(); at != instances_.end();)
        at = at->second.connections == 0 && steady >= at->second.leftAt + kKeepGone ? giveUp(at)
                                                                                    : std::next(at);
}

Runs::Instances::iterator Runs::giveUp(Instances::iterator at) {
    if (at->second.run.over) judge(at->second);
    if (intake_) intake_->giveUp(at->first, now_);
    givenUp_.push_back(at->first);
    return instances_.erase(at);
}

void Runs::makeRoom() {
    if (instances_.size() < kMostInstances) return;
    auto oldest = instances_.end();
    for (auto at = instances_.begin(); at != instances_.end(); ++at)
        if (at->second.connections == 0 &&
            (oldest == instances_.end() || at->second.leftAt < oldest->second.leftAt))
            oldest = at;
    if (oldest != instances_.end()) giveUp(oldest);
}

// An instance tells its methods once, before its first records.
void Runs::lookForNames(std::string_view line, InstanceState& instance) {
    if (instance.namesWanted || !instance.methods.empty()) return;
    EndRecord end{};
    instance.namesWanted = line.starts_with("3,") ||
                           (line.starts_with("4,") && readEnd(line.substr(2), end) && !end.blob.empty());
    if (instance.namesWanted) nameless_.push_back(instance.name);
}

void Runs::judge(InstanceState& instance) {
    const Answers answers = judgeRun(instance, summary_, sampled_);
    if (intake_) intake_->compared(instance, answers, now_);
    news_ += "run of " + instance.name + " compared with its monitors: " + std::to_string(answers.agreed) +
             " objects agree, " + std::to_string(answers.partial) + " recorded in part, " +
             std::to_string(answers.differing) + " differ\n";
}

void Runs::opened(StreamKind kind, InstanceState& instance) {
    ++instance.connections;
    if (kind != StreamKind::kData && kind != StreamKind::kAutoSensor) return;
    if (instance.run.over && (kind == StreamKind::kData || instance.run.sensorsOpen == 0)) judge(instance);
    Run& run = instance.run;
    int& connections = kind == StreamKind::kData ? run.dataConnections : run.sensorConnections;
    if (++connections > 1) run.broken = true;
    if (kind == StreamKind::kAutoSensor) ++run.sensorsOpen;
}

void Runs::line(StreamKind kind, std::string_view line, InstanceState& instance) {
    if (kind == StreamKind::kAutoSensor) takeMonitorRecord(line, separator_, instance, summary_);
    const bool wasOver = instance.run.over;
    if (kind == StreamKind::kData) takeRecord(line, instance, summary_);
    if (intake_) intake_->line(kind, line, instance, separator_, now_);
    if (kind != StreamKind::kData) return;
    lookForNames(line, instance);
    if (!wasOver && instance.run.over && instance.run.sensorsOpen == 0) judge(instance);
}

void Runs::closed(StreamKind kind, InstanceState& instance) {
    --instance.connections;
    instance.leftAt = vxlb_steady_ms();
    if (kind != StreamKind::kAutoSensor) return;
    if (instance.run.sensorsOpen > 0) --instance.run.sensorsOpen;
    if (instance.run.over && instance.run.sensorsOpen == 0) judge(instance);
}

void Runs::ordered(std::string_view line) {
    if (intake_) intake_->ordered(line);
    const std::string_view percent = fieldOf(line, "bciInstrSessionPct");
    const std::string_view separator = fieldOf(line, "vxVectorSeparator");
    const bool starts = line.starts_with("vx_control_req:action=start_instrumentation;");
    std::int64_t value = 0;
    if (readNumber(percent, value)) {
        sampled_ = value < 100 || (sampled_ && !starts);
    } else if (starts) {
        sampled_ = true;  // the instance's own default
    }
    if (!separator.empty()) separator_ = separator.front();
    const bool monitors = line.find("MonFile=") != line.npos || line.find("Monitor=") != line.npos;
    if (monitors && !starts)
        for (auto& [name, instance] : instances_) instance.run.changed = true;
}

}  // namespace vx::collector
