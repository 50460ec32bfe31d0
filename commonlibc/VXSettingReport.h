// What became of each setting that a start met: the one road from the readers of both settings files and of
// the environment to whoever wants to know (the check of the configuration; a start has the trace).
//
// Since the readers themselves report, what is reported is what a start does, by construction. A start
// listens too: its first readings happen before the settings give the trace its level, so it keeps the faults
// and traces them afterwards.
//
// Threads   Each thread has an observer of its own.
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
    kUnreadable,       // the whole file, which is there
};

struct VXSettingReport {
    const char* source;  // the file's name; for a variable its own name
    int line;            // 0 for a variable, and a whole file
    const char* key;     // of the row; null when no row knows the line
    const char* text;    // the value; where no row knows it, the line; of a file, why it cannot be read
    VXSettingVerdict verdict;
    VXConfigFault fault = VXConfigFault::kNone;
};

using VXSettingObserver = void (*)(const VXSettingReport& report);
extern thread_local VXSettingObserver vxSettingObserver;  // null: nobody

// Tells the observer, if there is one. The verdict.
VXSettingVerdict vxReportSetting(const VXSettingReport& report);
// "file:line", or the variable.
std::string vxSettingPlace(const VXSettingReport& report);
// What is wrong, with its place, as in "proxysetting.conf:3: unknown setting, ignored: 'x=1'"; empty when
// nothing is. Control bytes are masked, long texts cut.
std::string vxSettingFault(const VXSettingReport& report);
// The text without control bytes, cut at 200.
std::string vxPrintable(std::string text);
// Verdict on a line that no row took.
VXSettingVerdict vxVerdictOfUnknown(const char* line);
// Walks over the lines of a file of the config folder, and reports one that is there and cannot be read. True
// when it was read.
bool vxWalkSettings(const char* file, int maxLength, const VXConfigVisitor& visit);
// Traces and reports a line with a fault; true when it has one.
bool vxReportLineFault(const char* file, const VXConfigLine& line, int maxLength);
// The whole text as a number within the bounds; false, with `out` unchanged, for anything else.
bool vxSettingNumber(const char* text, long long min, long long max, int* out);

}  // namespace vx
