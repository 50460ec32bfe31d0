#include "commonlibc/VXCriticalFiles.h"

#include <cstring>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr const char* kDefaultList = ",VXEntryPointsFile,BTRuleConfig,";  // a comma on both sides of a name
constexpr const char* kSeparators = ",; \t\r\n";
constexpr std::size_t kKeywordSize = 32;
constexpr std::size_t kListSize = kKeywordRows * kKeywordSize + 2;

bool listHolds(const char* list, const char* keyword) {
    char wanted[kKeywordSize + 3];
    VXWriter out(wanted, sizeof(wanted));
    out.put(',').text(keyword).put(',').terminate();
    return !out.cut() && std::strstr(list, wanted);
}

void setList(const char* list) {
    vxApplication& app = *vxCurrent();
    setSharedText(app.retired, app.VXBCISetting.criticalFiles, list);
}

}  // namespace

void setDefaultCriticalFile() {
    setList(kDefaultList);
}

void setvxCriticalFileList(char* text) {
    char* fields[kKeywordRows];
    const int count = vxlb_get_tokens_with_multi_delimiter(text, fields, kSeparators, kKeywordRows);
    char list[kListSize];
    VXWriter out(list, sizeof(list));
    out.put(',').terminate();
    for (int i = 0; i < count; ++i) {
        if (std::strlen(fields[i]) >= kKeywordSize || listHolds(list, fields[i])) continue;
        out.text(fields[i]).put(',').terminate();
    }
    setList(list);
    VX_TRACE(1, kControlThread, kInfo, "Critical files are '%s'", list);
}

bool isCriticalFile(const char* keyword) {
    return listHolds(vxCurrent()->VXBCISetting.criticalFiles.getOr(""), keyword);
}

}  // namespace vx
