#include "commonlibc/http/VXHttpReqRespCaptureSettings.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "commonlibc/http/VXHttpHeaderMap.h"
#include "commonlibc/http/VXHttpNameList.h"
#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

using Settings = VXHttpReqRespCaptureSettings_t;

constexpr const char* kResponseKeyword = "captureHTTPRespFullFp";
constexpr std::int32_t kMaxLevel = 3, kMaxMode = 1;

// Each takes one field; false refuses the value.
bool setCaptureLevel(Settings& settings, std::int32_t value) {
    settings.captureLevel = value;
    return value >= 0 && value <= kMaxLevel;
}
bool setHdrMode(Settings& settings, std::int32_t value) {
    settings.hdrMode = value ? 1 : 0;
    return value >= 0 && value <= kMaxMode;
}
bool setHdrValueLengthMode(Settings& settings, std::int32_t value) {
    settings.hdrValueLengthMode = value ? 1 : 0;
    return true;
}
bool sethdrValueMaxLength(Settings& settings, std::int32_t value) {
    settings.hdrValueMaxLength = value;
    return true;
}

constexpr bool (*kFields[])(Settings&, std::int32_t) = {setCaptureLevel, setHdrMode, setHdrValueLengthMode,
                                                        sethdrValueMaxLength};
constexpr int kFieldCount = static_cast<int>(sizeof(kFields) / sizeof(kFields[0]));

// The listener reads the numbers meanwhile, each for itself.
void publishNumbers(Settings& settings, const Settings& wanted) {
    vx_word_set(settings.hdrMode, wanted.hdrMode);
    vx_word_set(settings.hdrValueLengthMode, wanted.hdrValueLengthMode);
    vx_word_set(settings.hdrValueMaxLength, wanted.hdrValueMaxLength);
    vx_word_set(settings.captureLevel, wanted.captureLevel);
}

// Replaces lists that records in the making may be reading, and frees the former ones.
void replaceLists(vxApplication& app, VXHttpNameList request, VXHttpNameList response) {
    {
        const VXGuard decode(app.decoder.decodeMutex);
        std::swap(app.http.request.list, request);
        std::swap(app.http.response.list, response);
    }
    vxFreeNameList(request);
    vxFreeNameList(response);
}

// Rows that are there already learn of the new list.
void markValuesAsId(VXHttpState_t& http) {
    const VXGuard guard(http.headerMutex);
    for (VXHttpHeader* row = http.firstHeader; row; row = row->next)
        row->valueAsId = vxNameListed(http.valuesAsId, row->name) ? 1 : 0;
}

// The part of `line` behind "word|", null when it begins otherwise.
char* behind(char* line, const char* word) {
    const std::size_t length = std::strlen(word);
    return strncasecmp(line, word, length) == 0 && line[length] == '|' ? line + length + 1 : nullptr;
}

void gatherLine(char* line, VXGatheredNames& request, VXGatheredNames& response) {
    if (char* comment = std::strchr(line, '#')) *comment = '\0';
    if (char* name = behind(line, "request")) {
        vxGatherName(request, name);
    } else if (char* other = behind(line, "response")) {
        vxGatherName(response, other);
    } else if (std::strchr(line, '|')) {
        VX_TRACE(1, kControlThread, kWarning, "Header list line '%.64s' is refused", line);
    } else {
        vxGatherName(request, line);
        vxGatherName(response, line);
    }
}

}  // namespace

void initVXHttpReqRespCaptureSettings(int ofResponse) {
    vxApplication& app = *vxCurrent();
    Settings& settings = ofResponse ? app.http.response : app.http.request;
    publishNumbers(settings, {});
    VXHttpNameList former{};
    {
        const VXGuard decode(app.decoder.decodeMutex);
        std::swap(settings.list, former);
    }
    vxFreeNameList(former);
}

void setHttpReqRespCaptureSettings(char* value, const char* keyword, int /*index*/) {
    vxApplication& app = *vxCurrent();
    if (!*value) {
        VX_TRACE(1, kControlThread, kError,
                 "VXHttpCaptureSettings: Retrurning without setting HttpCaptureSettings for "
                 "captureHTTPReqFullFp as keyword value is empty, keyword = %s",
                 keyword);
        return;
    }
    Settings& settings = std::strcmp(keyword, kResponseKeyword) == 0 ? app.http.response : app.http.request;
    Settings wanted = settings;  // this thread alone writes it
    char* fields[kFieldCount];
    const int count = vxlb_split_keep_empty(value, fields, "%20", kFieldCount);
    for (int i = 0; i < count; ++i) {
        if (kFields[i](wanted, vxbt_int(fields[i]))) continue;
        VX_TRACE(1, kControlThread, kWarning, "Field %d of keyword '%s' is refused: '%s'", i + 1, keyword,
                 fields[i]);
        return;
    }
    if (wanted.captureLevel) initHttpHashMapNode();
    publishNumbers(settings, wanted);
}

void sethdrListForValueAsId(char* value, const char* /*keyword*/, int /*index*/) {
    VXGatheredNames gathered;
    gathered.count = 0;
    for (char* at = std::strstr(value, "%2C"); at; at = std::strstr(at, "%2C")) std::fill_n(at, 3, ',');
    char* names[kMaxListedNames];
    const int count = vxlb_get_tokens_with_multi_delimiter(value, names, ",", kMaxListedNames);
    for (int i = 0; i < count; ++i) vxGatherName(gathered, names[i]);
    VXHttpNameList list{};
    if (!vxMakeNameList(list, gathered)) return;
    vxApplication& app = *vxCurrent();
    {
        const VXGuard decode(app.decoder.decodeMutex);
        std::swap(app.http.valuesAsId, list);
        markValuesAsId(app.http);
    }
    vxFreeNameList(list);
}

bool readHttpHeaderListFile(char* text, VXHttpNameList& request, VXHttpNameList& response) {
    VXGatheredNames ofRequest, ofResponse;
    ofRequest.count = ofResponse.count = 0;
    for (char* line = text; line;) {
        char* next = std::strchr(line, '\n');
        if (next) *next++ = '\0';
        gatherLine(line, ofRequest, ofResponse);
        line = next;
    }
    VXHttpNameList made{};
    if (!vxMakeNameList(made, ofRequest)) return false;
    if (vxMakeNameList(response, ofResponse)) {
        request = made;
        return true;
    }
    vxFreeNameList(made);
    return false;
}

void setHttpHashMapNode(char* text) {
    VXHttpNameList request{}, response{};
    if (!text || !readHttpHeaderListFile(text, request, response)) return;
    VX_TRACE(1, kControlThread, kInfo, "Header lists: %d of requests, %d of responses", request.count,
             response.count);
    replaceLists(*vxCurrent(), request, response);
}

void dropHttpHeaderLists() {
    replaceLists(*vxCurrent(), {}, {});
}

}  // namespace vx
