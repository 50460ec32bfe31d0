#include "commonlibc/VXKeywordPass.h"

#include <cstring>

#include "commonlibc/VXFileBasedKeywords.h"
#include "commonlibc/VXKeywordFill.h"
#include "commonlibc/VXKeywords.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr int kMaxFields = 1024;
constexpr std::size_t kKeySize = 1024;

bool beginsWith(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

bool keywordsApply(const vxApplication& app, const char* line) {
    if (beginsWith(line, kModifyPrefix)) return true;
    return beginsWith(line, kStartPrefix) && !app.data.controlCommunicationBusyFlag;
}

// False when the field ends the pass.
bool applyField(vxApplication& app, char* field, bool keywords) {
    char key[kKeySize];
    char* value = nullptr;
    if (beginsWith(field, "status")) {
        value = split_key_value(field, key, sizeof(key));
        if (!value || !*key) return false;
        fill_char_data(app.Server.status, value, sizeof(app.Server.status));
    }
    if (!keywords) return true;
    value = split_key_value(field, key, sizeof(key));
    if (!value || !*key || app.keywords.passBlocked) return false;

    const int index = NameToIndex(key);
    if (index < 0) {
        VX_TRACE(2, kControlThread, kInfo, "Index of Keyword is %d, hence continue from loop", index);
        return true;
    }
    vxApplyKeyword(index, value, key);
    return true;
}

}  // namespace

void findStatusFromClientMsg(const char* line) {
    vxApplication& app = *vxCurrent();
    char* copy = vxlb_strdup(line);
    if (!copy) return;
    char* fields[kMaxFields];
    const int count = vxlb_get_tokens_with_multi_delimiter(copy, fields, ";", kMaxFields);
    const bool keywords = keywordsApply(app, line);
    app.keywords.passBlocked = 0;
    beginFilePass(beginsWith(line, kStartPrefix));
    for (int i = 0; i < count; ++i)
        if (!applyField(app, fields[i], keywords)) break;
    VXLB_FREE(copy, "text copy", -1);
}

}  // namespace vx
