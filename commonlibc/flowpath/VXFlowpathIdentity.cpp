#include "commonlibc/flowpath/VXFlowpathIdentity.h"

#include <cstdlib>
#include <cstring>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/flowpath/VXFlowpathTime.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr const char* kMaskSeparator = "%20";
constexpr int kMaskSeparators = 6;  // honoured; more stay in the last field
constexpr int kMaskFieldsNeeded = 4;
constexpr int kVXCookieFields = 10;
constexpr int kKWCookieFields = 4;
constexpr std::size_t kCookieSize = 1024;
constexpr std::int32_t kSessionCategory = 9;

std::int64_t toInt64(const char* text, int base = 10) {
    return std::strtoll(text, nullptr, base);
}
std::int32_t toInt32(const char* text) {
    return static_cast<std::int32_t>(toInt64(text));
}

void setOwnTier(vxTD* slot) {
    slot->sessionCategory = kSessionCategory;
    slot->cookieTierId = getTierID();
    slot->cookieServerId = getAppServerID();
    slot->cookieAppId = getAppID();
}

}  // namespace

void parse_flowpath_mask(char* text) {
    if (!text) return;
    char* fields[kMaskSeparators + 1];
    const int count = vxlb_split_keep_empty(text, fields, kMaskSeparator, kMaskSeparators + 1);
    if (count == kMaskSeparators + 1 && std::strstr(fields[kMaskSeparators], kMaskSeparator))
        VX_TRACE(1, kFlowpath, kWarning,
                 "Total fields are more than max fields (%d), remaining fields are ignored\n",
                 kMaskSeparators);
    if (count < kMaskFieldsNeeded) {
        VX_TRACE(1, kFlowpath, kError, "total fields of vxflowpathmask are less than 3");
        return;
    }
    Server_t& server = vxCurrent()->Server;
    server.timeStampMask.store(toInt64(fields[1], 16), std::memory_order_relaxed);
    server.seqNoDigits.store(toInt32(fields[2]), std::memory_order_relaxed);
    server.seqNumMask.store(toInt64(fields[3], 16), std::memory_order_relaxed);
}

std::int64_t generate_flowpath_instance() {
    vxApplication& app = *vxCurrent();
    Server_t& server = app.Server;
    constexpr auto relaxed = std::memory_order_relaxed;
    const std::int64_t now = vxRelativeMs(app, vxlb_now_us());
    const std::int64_t sequence = server.flowpathCounter.fetch_add(1, relaxed) + 1U;
    const auto time = static_cast<std::uint64_t>(server.timeStampMask.load(relaxed) & now);
    const auto digits = static_cast<unsigned>(server.seqNoDigits.load(relaxed) & 63);
    const std::int64_t counted =
        vxWrapAdd(static_cast<std::int64_t>(time << digits), server.seqNumMask.load(relaxed) & sequence);
    return vxWrapAdd(counted, server.flowPathInstanceInitialID.load(relaxed));
}

void parseVXCookieStr(const char* text, vxTD* slot) {
    if (!text || !*text) {
        VX_TRACE(2, kFlowpath, kInfo, "Error in setting VXcookie string :");
        return;
    }
    char copy[kCookieSize];
    vxlb_copy_text(copy, sizeof(copy), text);
    char* fields[kVXCookieFields + 1];
    const int count = vxlb_get_tokens_with_multi_delimiter(copy, fields, "-", kVXCookieFields + 1);
    if (count < 1 || count > kVXCookieFields) {
        VX_TRACE(1, kFlowpath, kError, "Error in parsing VX cookie Invalid string : %s", text);
        return;
    }
    slot->sessionFP = slot->parentFP = toInt64(fields[0]);
    if (count > 1) slot->testRunId = toInt64(fields[1]);
    if (count > 2) slot->sessionStartTime = toInt64(fields[2]);
    if (count > 3) slot->sessionCaptured = toInt32(fields[3]);
    if (count > 6) slot->totalFpcount = static_cast<std::int32_t>(vxWrapAdd(toInt32(fields[6]), 1));
    setOwnTier(slot);
}

void parseKWCookieStr(const char* text, vxTD* slot) {
    if (!text || !*text) {
        VX_TRACE(2, kFlowpath, kInfo, "Error in setting KWcookie string :");
        return;
    }
    char copy[kCookieSize];
    vxlb_copy_text(copy, sizeof(copy), text);
    char* fields[kKWCookieFields];
    if (vxlb_get_tokens_with_multi_delimiter(copy, fields, "-", kKWCookieFields) < kKWCookieFields) {
        VX_TRACE(1, kFlowpath, kError, "Error in parsing KWcookie Invalid string : %s", text);
        return;
    }
    slot->kwSessionId = toInt64(fields[0]);
    slot->kwPageId = toInt64(fields[3]);
}

void setValue(vxTD* slot) {
    const VXBCISetting_t& setting = vxCurrent()->VXBCISetting;
    slot->sessionFP = slot->flowpathInstance.load(std::memory_order_relaxed);
    slot->testRunId = setting.testRunIndex.load(std::memory_order_relaxed);
    slot->sessionStartTime = slot->startTimeRel;
    slot->sessionCaptured = slot->tlIsFPCaptured;
    slot->totalFpcount = 1;
    setOwnTier(slot);
}

}  // namespace vx
