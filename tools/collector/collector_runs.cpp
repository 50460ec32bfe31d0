#include "tools/collector/collector_runs.h"

#include "tools/collector/collector_records.h"

namespace vx::collector {

InstanceState& Runs::of(const std::string& identity) {
    InstanceState& instance = instances_[identity];
    if (!instance.name.empty()) return instance;
    instance.name = identity;
    if (intake_) intake_->recall(instance);
    return instance;
}

void Runs::judge(InstanceState& instance) {
    const Answers answers = judgeRun(instance, summary_, sampled_);
    if (intake_) intake_->compared(instance, answers, now_);
    news_ += "run of " + instance.name + " compared with its monitors: " + std::to_string(answers.agreed) +
             " objects agree, " + std::to_string(answers.partial) + " recorded in part, " +
             std::to_string(answers.differing) + " differ\n";
}

void Runs::opened(StreamKind kind, InstanceState& instance) {
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
    if (!wasOver && instance.run.over && instance.run.sensorsOpen == 0) judge(instance);
}

void Runs::closed(StreamKind kind, InstanceState& instance) {
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
