#include "commonlibc/VXSettingReport.h"

#include <charconv>
#include <cstring>

#include "commonlibc/vxlb_trace.h"

namespace vx {

VXSettingObserver vxSettingObserver = nullptr;

VXSettingVerdict vxReportSetting(const VXSettingReport& report) {
    if (vxSettingObserver) vxSettingObserver(report);
    return report.verdict;
}

VXSettingVerdict vxVerdictOfUnknown(const char* line) {
    const char* equals = std::strchr(line, '=');
    if (!equals || equals == line) return VXSettingVerdict::kNoPair;
    return equals[1] ? VXSettingVerdict::kUnknown : VXSettingVerdict::kNoValue;
}

bool vxReportLineFault(const char* file, const VXConfigLine& line, int maxLength) {
    switch (line.fault) {
        case VXConfigFault::kNone:
            return false;
        case VXConfigFault::kTooLong:
            VX_TRACE(1, kControlThread, kError, "%s: line %d has more than %d characters, ignored", file,
                     line.number, maxLength);
            break;
        case VXConfigFault::kIndented:
            VX_TRACE(1, kControlThread, kWarning, "%s: line %d begins with a blank or tab, ignored", file,
                     line.number);
            break;
        case VXConfigFault::kZeroByte:
            VX_TRACE(1, kControlThread, kError, "%s: line %d holds a zero byte, ignored", file, line.number);
            break;
    }
    vxReportSetting({file, line.number, nullptr, line.text, VXSettingVerdict::kLineFault, line.fault});
    return true;
}

bool vxSettingNumber(const char* text, long long min, long long max, int* out) {
    const char* const end = text + std::strlen(text);
    if (*text == '+' && text[1] != '-') ++text;
    long long value = 0;
    const auto [last, error] = std::from_chars(text, end, value);
    if (error != std::errc() || last != end || value < min || value > max) return false;
    *out = static_cast<int>(value);
    return true;
}

}  // namespace vx
