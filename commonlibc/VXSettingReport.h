// What became of each setting that a start met: the one road from the readers of both settings files and of
// the environment to whoever wants to know (the check of the configuration; a start has the trace).
//
// Since the readers themselves report, what is reported is what a start does, by construction.
//
// Threads   The observer is set before other threads exist, or never.
#pragma once

#include <string>

#include "commonlibc/VXConfigFile.h"

namespace vx {

enum class VXSettingVerdict {
    kTaken,
    kTakenInPart,      // what was valid of a list
    kKeptOutOfBounds,  // in force, though out of its bounds
    kUnused,           // understood, but something else goes before
    kInvalid,          // the value is none; the earlier one stays
    kLineFault,        // the line is not looked at: see `fault`
    kUnknown,          // no setting of that name
    kNoValue,          // nothing behind the "="
    kNoPair,           // no "=" at all
};

struct VXSettingReport {
    const char* source;  // the file's name; for a variable its own name
    int line;            // 0 for a variable
    const char* key;     // of the row; null when no row knows the line
    const char* text;    // the value; where no row knows it, the line
    VXSettingVerdict verdict;
    VXConfigFault fault = VXConfigFault::kNone;
};

using VXSettingObserver = void (*)(const VXSettingReport& report);
extern VXSettingObserver vxSettingObserver;  // null: nobody

// Tells the observer, if there is one. The verdict.
VXSettingVerdict vxReportSetting(const VXSettingReport& report);
// Verdict on a line that no row took.
VXSettingVerdict vxVerdictOfUnknown(const char* line);
// Traces and reports a line with a fault; true when it has one.
bool vxReportLineFault(const char* file, const VXConfigLine& line, int maxLength);
// The whole text as a number within the bounds; false, with `out` unchanged, for anything else.
bool vxSettingNumber(const char* text, long long min, long long max, int* out);

}  // namespace vx
