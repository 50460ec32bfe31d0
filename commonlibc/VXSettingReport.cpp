#include "commonlibc/VXSettingReport.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::size_t kShownBytes = 200;

// Null for a verdict that is no fault.
const char* faultText(const VXSettingReport& report) {
    switch (report.verdict) {
        case VXSettingVerdict::kTakenInPart:
            return "taken in part, an item is not valid";
        case VXSettingVerdict::kKeptOutOfBounds:
            return "out of bounds, yet in force";
        case VXSettingVerdict::kInvalid:
            return "not a valid value, ignored";
        case VXSettingVerdict::kUnknown:
            return "unknown setting, ignored";
        case VXSettingVerdict::kNoValue:
            return "no value, ignored";
        case VXSettingVerdict::kNoPair:
            return "not of the form key=value, ignored";
        case VXSettingVerdict::kUnreadable:
            return "cannot be read";
        case VXSettingVerdict::kLineFault:
            break;
        default:
            return nullptr;
    }
    switch (report.fault) {
        case VXConfigFault::kTooLong:
            return "too long, ignored";
        case VXConfigFault::kIndented:
            return "begins with a blank or tab, ignored";
        default:
            return "holds a zero byte, ignored";
    }
}

}  // namespace

thread_local VXSettingObserver vxSettingObserver = nullptr;

VXSettingVerdict vxReportSetting(const VXSettingReport& report) {
    if (vxSettingObserver) vxSettingObserver(report);
    return report.verdict;
}

std::string vxPrintable(std::string text) {
    if (text.size() > kShownBytes) text = text.substr(0, kShownBytes) + "...";
    std::replace_if(
        text.begin(), text.end(), [](unsigned char byte) { return byte < 32 || byte == 127; }, '?');
    return text;
}

std::string vxSettingPlace(const VXSettingReport& report) {
    return report.line > 0 ? std::string(report.source) + ":" + std::to_string(report.line) : report.source;
}

std::string vxSettingFault(const VXSettingReport& report) {
    const char* fault = faultText(report);
    if (!fault) return "";
    const bool hasKey = report.key && report.line > 0;
    return vxSettingPlace(report) + ": " + fault + ": '" +
           vxPrintable((hasKey ? std::string(report.key) + "=" : "") + report.text) + "'";
}

VXSettingVerdict vxVerdictOfUnknown(const char* line) {
    const char* equals = std::strchr(line, '=');
    if (!equals || equals == line) return VXSettingVerdict::kNoPair;
    return equals[1] ? VXSettingVerdict::kUnknown : VXSettingVerdict::kNoValue;
}

bool vxWalkSettings(const char* file, int maxLength, const VXConfigVisitor& visit) {
    char path[kConfigPathSize];
    vxConfigPath(path, sizeof(path), file);
    std::string reason;
    const VXConfigAnswer answer = vxWalkConfigLines(path, static_cast<std::size_t>(maxLength), visit, reason);
    if (answer == VXConfigAnswer::kUnreadable)
        vxReportSetting({file, 0, nullptr, reason.c_str(), VXSettingVerdict::kUnreadable});
    return answer == VXConfigAnswer::kRead;
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
