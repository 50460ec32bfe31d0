#include "commonlibc/exception/VXExceptionSettings.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

// One block: this, the names' addresses, the names. The addresses are sorted by name.
struct VXExceptionFilter {
    int count;
    char** names;
};

namespace {

constexpr int kSettingFields = 8;
constexpr int kFilterNames = 1024;
constexpr std::size_t kSettingSize = 256;
constexpr std::int32_t kAnyAbove = std::numeric_limits<std::int32_t>::max();
constexpr const char* kNoFilter = "NA";

struct CaptureField {
    std::atomic<std::int32_t> VXExceptionState_t::*member;
    const char* name;
    std::int32_t least, greatest;
    std::int32_t refused;  // in between; -1: none
};
constexpr CaptureField kCaptureFields[] = {
    {&VXExceptionState_t::exceptionCaptureMode, "exceptionCaptureMode", 0, 2, -1},
    {&VXExceptionState_t::stackTraceCaptureMode, "stackTraceCaptureMode", 0, 1, -1},
    {&VXExceptionState_t::exceptionType, "exceptionType", 0, 3, 2},
    {&VXExceptionState_t::stackTraceMaxDepth, "stackTraceMaxDepth", 1, kAnyAbove, -1},
    {&VXExceptionState_t::exceptionCauseCaptureMode, "exceptionCauseCaptureMode", 0, 1, -1},
};

std::int32_t numberOf(const char* text) {
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(
        std::clamp<long long>(std::strtoll(text, nullptr, 10), Limits::min(), Limits::max()));
}

// False when the value is refused.
bool applyField(VXExceptionState_t& state, const CaptureField& field, const char* text) {
    const std::int32_t value = numberOf(text);
    if (value < field.least || value > field.greatest || value == field.refused) {
        VX_TRACE(1, kExcpMon, kError,
                 "VXExceptionCaptureSettings: Returning without setting %s, as value is invalid", field.name);
        return false;
    }
    (state.*field.member).store(value, std::memory_order_relaxed);
    return true;
}

bool byName(const char* a, const char* b) {
    return std::strcmp(a, b) < 0;
}

// Null without memory.
VXExceptionFilter* makeFilter(const char* list) {
    const std::size_t length = std::strlen(list);
    const auto room = std::min<std::size_t>(
        kFilterNames, static_cast<std::size_t>(std::count(list, list + length, ',')) + 1);
    char* block = static_cast<char*>(VXLB_MALLOC(
        sizeof(VXExceptionFilter) + room * sizeof(char*) + length + 1, "exception filter list", -1));
    if (!block) return nullptr;
    auto* filter = reinterpret_cast<VXExceptionFilter*>(block);
    filter->names = reinterpret_cast<char**>(block + sizeof(VXExceptionFilter));
    char* text = block + sizeof(VXExceptionFilter) + room * sizeof(char*);
    std::memcpy(text, list, length + 1);
    filter->count = vxlb_get_tokens_with_multi_delimiter(text, filter->names, ",", static_cast<int>(room));
    std::sort(filter->names, filter->names + filter->count, byName);
    return filter;
}

void useFilter(VXExceptionFilter* filter) {
    vxApplication& app = *vxCurrent();
    {
        const VXGuard decode(app.decoder.decodeMutex);
        filter = std::exchange(app.exceptions.filter, filter);
    }
    VXLB_FREE(filter, "exception filter list", -1);
}

}  // namespace

void setExceptionCaptureSettings(const char* value) {
    char copy[kSettingSize];
    char* fields[kSettingFields];
    vxlb_copy_text(copy, sizeof(copy), value);
    const int given = vxlb_split_keep_empty(copy, fields, "%20", kSettingFields);
    VXExceptionState_t& state = vxCurrent()->exceptions;
    int at = 0;
    for (const CaptureField& field : kCaptureFields) {
        if (at == given || !applyField(state, field, fields[at++])) return;
        if (field.member != &VXExceptionState_t::stackTraceCaptureMode || state.stackTraceCaptureMode)
            continue;
        VX_TRACE(1, kExcpMon, kInfo,
                 "VXExceptionCaptureSettings: Retrurning without setting other fields as the stack trace "
                 "capturing is disable.");
        return;
    }
}

void parseExceptionFilteringList(const char* value) {
    const bool off = !*value || strcasecmp(value, kNoFilter) == 0;
    VXExceptionFilter* filter = off ? nullptr : makeFilter(value);
    if (off || filter) useFilter(filter);
}

void setBackendErrorDetectionMode(const char* value) {
    vxCurrent()->exceptions.backendErrorDetectionMode.store(numberOf(value), std::memory_order_relaxed);
}

void setdefaultValuesForException() {
    const VXExceptionState_t fresh{};
    VXExceptionState_t& state = vxCurrent()->exceptions;
    for (const CaptureField& field : kCaptureFields)
        (state.*field.member).store((fresh.*field.member).load());
    state.backendErrorDetectionMode.store(fresh.backendErrorDetectionMode.load());
    useFilter(nullptr);
}

bool vxIsIgnoredException(const VXExceptionState_t& state, const char* className) {
    const VXExceptionFilter* filter = state.filter;
    if (!filter) return false;
    char** const end = filter->names + filter->count;
    char** const at = std::lower_bound(filter->names, end, className, byName);
    if (at == end || std::strcmp(*at, className) != 0) return false;
    VX_TRACE(2, kExcpMon, kInfo, "Exception Filter is enable for string is :%s and current element :%s",
             className, *at);
    return true;
}

}  // namespace vx
