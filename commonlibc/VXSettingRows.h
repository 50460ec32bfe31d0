// The agent settings as a table: one row a setting, with its key in the file, its environment variable and
// what it does.
//
// Order     Rows act in the order of the table, whatever the order of the lines.
// Errors    take() answers kInvalid for a value it does not accept, kUnused for one that something else goes
//           before; nothing has changed then.
// Threads   take() runs on the thread of the settings pass, on the current context.
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "commonlibc/VXSettingReport.h"

namespace vx {

// Identity rows act at the start of a context only; collector rows with each pass.
enum class VXSettingSide { kIdentity, kCollector };

struct VXSettingRow {
    const char* key;       // in the file; null: environment only
    const char* variable;  // in the environment; null: file only
    VXSettingSide side;
    VXSettingVerdict (*take)(const char* value, bool fromFile);
    std::string (*show)();  // what is in force, "" for nothing
    const char* help;       // ends with the default in brackets, where there is one
};

std::span<const VXSettingRow> vxSettingRows();
// Row of a line of the file and its value; -1 for a line that no row understands.
int vxSettingRowOf(const char* line, const char** value);
// Row with this key; -1 without one.
int vxSettingRowNamed(const char* key);

}  // namespace vx
