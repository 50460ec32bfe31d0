// What a monitor's generator writes, as text.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "commonlibc/VXMonitorReport.h"

namespace vx::test {

inline std::string reportOf(bool (*generate)(char* buffer, std::int32_t* length)) {
    const auto buffer = std::make_unique<char[]>(kReportBufferSize);
    std::int32_t length = 0;
    generate(buffer.get(), &length);
    return {buffer.get(), static_cast<std::size_t>(length)};
}

}  // namespace vx::test
