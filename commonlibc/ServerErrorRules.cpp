#include "commonlibc/ServerErrorRules.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::size_t kLineSize = 2048;
constexpr int kFields = 6;
constexpr int kFieldActs = 0, kFieldIsError = 1, kFieldLower = 3, kFieldUpper = 4;

using StatusTable = std::array<char, kStatusTableSize>;

// False ends the parse.
bool applyLine(char* line, StatusTable& table) {
    char* fields[kFields + 1];
    char shown[kLineSize];
    vxlb_copy_text(shown, sizeof(shown), line);
    if (vxlb_split_keep_empty(line, fields, "|", kFields + 1) != kFields) {
        VX_TRACE(1, kControlThread, kError, "Content '%s' is not in proper format.", shown);
        return false;
    }
    const int lower = keywordInt(fields[kFieldLower]);
    const int upper = keywordInt(fields[kFieldUpper]);
    if (lower < 0 || upper > kStatusTableSize) {
        VX_TRACE(1, kControlThread, kError, "out of range, Range should be in between 0-599");
        return false;
    }
    VX_TRACE(2, kControlThread, kInfo, "Lower Bound is ='%d', Upper Bound is ='%d'", lower, upper);
    if (std::strcmp(fields[kFieldActs], "0") != 0) return true;
    const char mark = std::strcmp(fields[kFieldIsError], "1") == 0 ? 'F' : 'T';
    for (int status = lower; status <= std::min(upper, kStatusTableSize - 1); ++status)
        table[static_cast<std::size_t>(status)] = mark;
    return true;
}

void applyLines(const char* text, StatusTable& table) {
    while (text && *text) {
        const std::size_t length = std::strcspn(text, "\r\n");
        char line[kLineSize];
        vxlb_copy_text(line, std::min(length + 1, sizeof(line)), text);
        if (length > 0 && *line != '#' && !applyLine(line, table)) return;
        text += length;
        if (*text) ++text;
    }
}

}  // namespace

void parseBtError(const char* text) {
    vxApplication& app = *vxCurrent();
    auto& inForce = app.VXBCISetting.btErrorArray;
    StatusTable table;
    std::copy(std::begin(inForce), std::end(inForce), table.begin());
    applyLines(text, table);
    const VXGuard decode(app.decoder.decodeMutex);  // no transaction ends between two statuses of a text
    std::copy(table.begin(), table.end(), std::begin(inForce));
}

}  // namespace vx
