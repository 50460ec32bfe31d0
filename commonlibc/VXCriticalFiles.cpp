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
static_assert(kCriticalFilesSize >= kKeywordRows * (kKeywordSize + 1) + 2);

bool listHolds(const char* list, const char* keyword) {
    char wanted[kKeywordSize + 3];
    VXWriter out(wanted, sizeof(wanted));
    out.put(',').text(keyword).put(',').terminate();
    return !out.cut() && std::strstr(list, wanted);
}

}  // namespace

void setDefaultCriticalFile() {
    char* list = vxCurrent()->VXBCISetting.criticalFiles;
    vxlb_copy_text(list, kCriticalFilesSize, kDefaultList);
}

void setvxCriticalFileList(char* text) {
    char* fields[kKeywordRows];
    const int count = vxlb_get_tokens_with_multi_delimiter(text, fields, kSeparators, kKeywordRows);
    char* list = vxCurrent()->VXBCISetting.criticalFiles;
    VXWriter out(list, kCriticalFilesSize);
    out.put(',').terminate();
    for (int i = 0; i < count; ++i) {
        if (std::strlen(fields[i]) >= kKeywordSize || listHolds(list, fields[i])) continue;
        out.text(fields[i]).put(',').terminate();
    }
    VX_TRACE(1, kControlThread, kInfo, "Critical files are '%s'", list);
}

bool isCriticalFile(const char* keyword) {
    return listHolds(vxCurrent()->VXBCISetting.criticalFiles, keyword);
}

}  // namespace vx
