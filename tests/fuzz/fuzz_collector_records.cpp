// The collector's decoders of data and auto-sensor streams: any line, in any order; what is stored of them is
// read again, and written as spans.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tools/collector/collector_runs.h"
#include "tools/collector/export_otlp.h"

namespace {

using namespace vx::collector;

std::string anyName(NameKind, std::int64_t id) {
    return id % 2 ? "name" : "";
}

void readStored(StoreQueue& queue) {
    queue.close();
    for (const Batch& batch : queue.take(std::chrono::milliseconds(0)))
        for (const StoredTransaction& stored : batch.transactions) {
            TransactionDetails details;
            details.row = stored.row;
            readDetails(stored.lines, stored.row.duration, 0, anyName, details);
            std::string spans;
            addSpans(spans, details, ownIds(stored.row));
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StoreQueue queue;
    StoreIntake intake(queue, 1);
    Runs runs;
    runs.storeIn(&intake);
    runs.turn(1'760'000'000'000);
    InstanceState& instance = runs.of("instance");
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        runs.line(StreamKind::kData, rest.substr(0, end), instance);
        runs.line(StreamKind::kAutoSensor, rest.substr(0, end), instance);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
    intake.flush(1'760'000'000'000, true);
    readStored(queue);
    judgeRun(instance, runs.summary(), false);
    return 0;
}
