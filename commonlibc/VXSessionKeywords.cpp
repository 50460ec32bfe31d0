#include "commonlibc/VXSessionKeywords.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/VXKeywordText.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr const char* kSeparator = "%20";
constexpr std::size_t kValueSize = 1024;
constexpr int kTraceContextFields = 9;
constexpr std::int64_t kMsPerSecond = 1000;

void refuse(const char* what, const char* value) {
    VX_TRACE(1, kControlThread, kWarning, "Value '%s' of '%s' is refused", value, what);
}

void keepName(VXSharedText& text, const char* name) {
    setSharedText(vxCurrent()->retired, text, *name ? name : nullptr);
}

void setSessionSwitch(const char* value) {
    vx_word_set(vxCurrent()->VXSys.enableVXSession, keywordInt(value));
}
void setHeaderInResponse(const char* value) {
    vx_word_set(vxCurrent()->session.headerInResponse, keywordInt(value));
}
void setMpos(const char* value) {
    vx_word_set(vxCurrent()->session.mpos, keywordInt(value));
}
// A count below 0 would end every session at once.
void setMaxFPCountInSession(const char* value) {
    const std::int64_t count = keywordLong(value);
    if (count < 0) return refuse("maxFPCountInSession", value);
    vx_word_set(vxCurrent()->VXSys.maxFPCountInSession, count);
}

constexpr void (*kSessionFields[])(const char*) = {
    setSessionSwitch, setVXSessionCookieName, setCookieDomainName,         setHeaderInResponse,
    setMpos,          setMaxFPCountInSession, setVxSessionIdleTimeOutSecs,
};
constexpr int kSessionFieldCount = static_cast<int>(sizeof(kSessionFields) / sizeof(kSessionFields[0]));

}  // namespace

void setEnableVXSession(char* value, const char* /*keyword*/, int index) {
    vxKeepKeywordText(index, value);
    char* fields[kSessionFieldCount];
    const int count = vxlb_split_keep_empty(value, fields, kSeparator, kSessionFieldCount);
    for (int i = 0; i < count; ++i) kSessionFields[i](fields[i]);
}

void setKWCookie(char* value, const char* /*keyword*/, int index) {
    vxKeepKeywordText(index, value);
    keepName(vxCurrent()->VXSys.sessionCookieName, value);
}

void setCorrelationIDHeader(char* value, const char* /*keyword*/, int /*index*/) {
    vxApplication& app = *vxCurrent();
    char* fields[2];
    const int count = vxlb_split_keep_empty(value, fields, kSeparator, 2);
    const char* name = fields[count - 1];
    const bool on = *name && (count == 1 || keywordInt(fields[0]) == 1);
    keepName(app.VXSys.correlationIDHeader, name);
    vx_word_set(app.VXSys.correlationIDEnabled, on ? 1 : 0);
}

void setpropheadcheck(char* value, const char* keyword, int index) {
    char scratch[kValueSize];
    char* fields[kTraceContextFields];
    vxlb_copy_text(scratch, sizeof(scratch), value);
    const int count = vxlb_split_keep_empty(scratch, fields, kSeparator, kTraceContextFields);
    if (count < kTraceContextFields) {
        VX_TRACE(1, kControlThread, kWarning, "Value '%s' of keyword '%s' is refused, it has %d fields of %d",
                 value, keyword, count, kTraceContextFields);
        return;
    }
    vxKeepKeywordText(index, value);
    vxApplication& app = *vxCurrent();
    std::int32_t* const switches[] = {&app.VXSys.otelEnabled, &app.VXSys.otelGlobal,
                                      &app.http.trace.traceparent, &app.http.trace.tracestate,
                                      &app.http.trace.b3};
    char** field = fields;
    for (std::int32_t* word : switches) vx_word_set(*word, keywordInt(*field++) == 1 ? 1 : 0);
}

void setVXSessionCookieName(const char* name) {
    keepName(vxCurrent()->session.vxCookieName, name);
}

void setCookieDomainName(const char* name) {
    keepName(vxCurrent()->session.cookieDomainName, name);
}

void setVxSessionIdleTimeOutSecs(const char* value) {
    const std::int64_t ms = keywordLong(value);
    if (ms < 0) return refuse("vxSessionIdleTimeOutSecs", value);
    const std::int64_t seconds = ms > 0 && ms < kMsPerSecond ? 1 : ms / kMsPerSecond;
    vx_word_set(vxCurrent()->VXSys.vxSessionIdleTimeOutSecs, seconds);
}

}  // namespace vx
