#include "commonlibc/vxbt/vxbt_rule_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utf8.h"

namespace vx {

namespace {

constexpr const char* kBlockName = "rule text";

// A pipe or a device in a file's place would hold the reader up.
bool isRegularFile(const char* path) {
    const VXPool pool(nullptr);
    apr_finfo_t info;
    return apr_stat(&info, path, APR_FINFO_TYPE, pool.get()) == APR_SUCCESS && info.filetype == APR_REG;
}

}  // namespace

int getLineFromFile(const char* path, char** text) {
    *text = nullptr;
    const VXFile file(isRegularFile(path) ? std::fopen(path, "rb") : nullptr);
    if (!file) {
        VX_TRACE(1, kBtMon, kWarning, "Error in opening file %s\n", path);
        return -1;
    }
    auto* block = static_cast<char*>(VXLB_MALLOC(kMaxRuleText + 1, kBlockName, -1));
    if (!block) return -1;
    const std::size_t length = std::fread(block, 1, kMaxRuleText, file.get());
    if (std::ferror(file.get()) || std::fgetc(file.get()) != EOF) {
        VX_TRACE(1, kBtMon, kError, "Error in writing, Bytes read = %d", static_cast<int>(length));
        VXLB_FREE(block, kBlockName, -1);
        return -1;
    }
    block[length] = '\0';
    *text = block;
    return 0;
}

bool getNextLine(char* line, const char** cursor) {
    const char* at = *cursor;
    if (!at || !*at) {
        VX_TRACE(2, kBtMon, kInfo, "Buffer passed is empty");
        *cursor = nullptr;
        return false;
    }
    const std::size_t whole = std::strcspn(at, "\n");
    const std::size_t end = whole > 0 && at[whole - 1] == '\r' ? whole - 1 : whole;
    const std::size_t length = std::min(end, kRuleLineSize - 1);
    std::memcpy(line, at, length);
    line[length] = '\0';
    at += whole;
    *cursor = at[0] && at[1] ? at + 1 : nullptr;
    return true;
}

VXRuleText::VXRuleText(const char* pathOrText, VXRuleSource source) {
    if (source == VXRuleSource::kPath) {
        if (getLineFromFile(pathOrText, &block_) == 0) text_ = block_ + vxlb_mark_length(block_);
        return;
    }
    if (strnlen(pathOrText, kMaxRuleText + 1) <= kMaxRuleText) {
        text_ = pathOrText + vxlb_mark_length(pathOrText);
        return;
    }
    text_ = nullptr;
    VX_TRACE(1, kBtMon, kError, "Text is longer than %d bytes, what is in force stays",
             static_cast<int>(kMaxRuleText));
}

VXRuleText::~VXRuleText() {
    VXLB_FREE(block_, kBlockName, -1);
}

}  // namespace vx
