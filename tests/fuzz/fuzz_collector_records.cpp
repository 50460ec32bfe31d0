// The collector's decoders of data and auto-sensor streams: any line, in any order.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tools/collector/collector_records.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vx::collector::InstanceState instance;
    vx::collector::Summary summary;
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        vx::collector::takeRecord(rest.substr(0, end), instance, summary);
        vx::collector::takeMonitorRecord(rest.substr(0, end), '_', instance, summary);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    }
    vx::collector::judgeRun(instance, summary, false);
    return 0;
}
