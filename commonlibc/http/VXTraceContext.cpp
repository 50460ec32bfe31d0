#include "commonlibc/http/VXTraceContext.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::size_t kTraceIdSize = 32, kShortTraceIdSize = 16, kSpanIdSize = 16;
constexpr std::size_t kTraceparentSize = 55;  // of version 00
constexpr std::size_t kTraceAt = 3, kSpanAt = 36, kFlagsAt = 53;
constexpr std::size_t kTracestateMax = 512, kMaxMembers = 32;
constexpr std::size_t kKeyMax = 256, kTenantMax = 241, kSystemMax = 14, kValueMax = 256;

struct TraceHeaderRow {
    const char* name;
    std::string_view VXTraceHeaders::*value;
    std::int32_t VXTraceSettings_t::*switchedBy;
};
constexpr TraceHeaderRow kRows[] = {
    {"traceparent", &VXTraceHeaders::traceparent, &VXTraceSettings_t::traceparent},
    {"tracestate", &VXTraceHeaders::tracestate, &VXTraceSettings_t::tracestate},
    {"X-B3-TraceId", &VXTraceHeaders::traceId, &VXTraceSettings_t::b3},
    {"X-B3-SpanId", &VXTraceHeaders::spanId, &VXTraceSettings_t::b3},
    {"X-B3-ParentSpanId", &VXTraceHeaders::parentSpanId, &VXTraceSettings_t::b3},
    {"X-B3-Sampled", &VXTraceHeaders::sampled, &VXTraceSettings_t::b3},
};
constexpr std::uint32_t kTraceparentBit = 1, kTracestateBit = 2, kB3Bits = 4 | 8 | 16 | 32;

bool isLower(char byte) {
    return byte >= 'a' && byte <= 'z';
}
bool isDigit(char byte) {
    return byte >= '0' && byte <= '9';
}
bool isHex(char byte) {
    return isDigit(byte) || (byte >= 'a' && byte <= 'f');
}
bool isHexText(std::string_view text, std::size_t size) {
    return text.size() == size && std::all_of(text.begin(), text.end(), isHex);
}
// So many hexadecimal digits, not all of them 0.
bool isId(std::string_view text, std::size_t size) {
    return isHexText(text, size) && text.find_first_not_of('0') != std::string_view::npos;
}
unsigned hexDigit(char byte) {
    return static_cast<unsigned>(isDigit(byte) ? byte - '0' : byte - 'a' + 10);
}

std::string_view trimmed(std::string_view text) {
    constexpr const char* blanks = " \t";
    const std::size_t from = text.find_first_not_of(blanks);
    if (from == std::string_view::npos) return text.substr(0, 0);
    return text.substr(from, text.find_last_not_of(blanks) - from + 1);
}

template <std::size_t size>
void copyId(char (&out)[size], std::string_view id) {
    out[id.copy(out, size - 1)] = '\0';
}

bool isKeyPart(std::string_view part, std::size_t most, bool digitMayLead) {
    const auto inside = [](char byte) {
        return isLower(byte) || isDigit(byte) || std::strchr("_-*/", byte) != nullptr;
    };
    if (part.empty() || part.size() > most || part.find('\0') != std::string_view::npos) return false;
    if (!isLower(part[0]) && !(digitMayLead && isDigit(part[0]))) return false;
    return std::all_of(part.begin(), part.end(), inside);
}

// "key", or "tenant@system".
bool isKey(std::string_view key) {
    const std::size_t at = key.find('@');
    if (at == std::string_view::npos) return isKeyPart(key, kKeyMax, false);
    return isKeyPart(key.substr(0, at), kTenantMax, true) && isKeyPart(key.substr(at + 1), kSystemMax, false);
}

// Printable, without "," and "=", and not ending in a blank.
bool isMemberValue(std::string_view value) {
    const auto inside = [](char byte) { return byte >= ' ' && byte <= '~' && byte != ',' && byte != '='; };
    return !value.empty() && value.size() <= kValueMax && value.back() != ' ' &&
           std::all_of(value.begin(), value.end(), inside);
}

long long instanceOf(const vxTD* slot) {
    return slot->flowpathInstance.load(std::memory_order_relaxed);
}

void traceIgnored(const vxTD* slot, const char* header, const char* why) {
    VX_TRACE(2, kFlowpath, kWarning, "Header '%s' of fp '%lld' %s and is ignored", header, instanceOf(slot),
             why);
}

bool takeW3C(const vxTD* slot, const VXTraceHeaders& headers, VXTraceContext& context) {
    if (!(headers.seen & kTraceparentBit)) return false;
    const bool twice = headers.twice & kTraceparentBit;
    if (!twice && vxParseTraceparent(headers.traceparent, context)) return true;
    traceIgnored(slot, "traceparent", twice ? "comes twice" : "is malformed");
    return false;
}

bool takeB3(const vxTD* slot, const VXTraceHeaders& headers, VXTraceContext& context) {
    if (!(headers.seen & kB3Bits)) return false;
    const bool twice = headers.twice & kB3Bits;
    if (!twice && vxParseB3(headers, context)) return true;
    if (twice || !headers.traceId.empty() || !headers.spanId.empty() || !headers.parentSpanId.empty())
        traceIgnored(slot, "X-B3", twice ? "comes twice" : "is malformed");
    return false;
}

// A tracestate has a meaning only beside its traceparent.
void takeTracestate(vxTD* slot, const VXTraceHeaders& headers) {
    if (!(headers.seen & kTracestateBit) || slot->OTL_tracestate) return;
    const bool twice = headers.twice & kTracestateBit;
    if (twice || !vxTracestateIsValid(headers.tracestate)) {
        traceIgnored(slot, "tracestate", twice ? "comes twice" : "is malformed");
        return;
    }
    char copy[kTracestateMax + 1];
    copyId(copy, headers.tracestate);
    slot->OTL_tracestate = vxlb_strdup(copy);
}

bool isAnother(const char* held, const char* found) {
    return held && std::strcmp(held, found) != 0;
}

// False when the slot belongs to a trace already that is not this one.
bool keepIds(vxTD* slot, const VXTraceContext& context) {
    if (isAnother(slot->OTL_traceID, context.traceId) || isAnother(slot->OTL_parentID, context.parentId))
        return false;
    if (!slot->OTL_traceID) slot->OTL_traceID = vxlb_strdup(context.traceId);
    if (!slot->OTL_parentID) slot->OTL_parentID = vxlb_strdup(context.parentId);
    return true;
}

}  // namespace

bool vxTraceContextOn(const vxApplication& app) {
    if (!vx_word_get(app.VXSys.otelEnabled)) return false;
    return vx_word_get(app.http.trace.traceparent) == 1 || vx_word_get(app.http.trace.b3) == 1;
}

void vxNoteTraceHeader(const VXTraceSettings_t& switches, VXTraceHeaders& headers, const char* name,
                       const char* value) {
    std::uint32_t bit = 1;
    for (const TraceHeaderRow& row : kRows) {
        if (strcasecmp(row.name, name) == 0) {
            if (vx_word_get(switches.*row.switchedBy) != 1) return;
            headers.twice |= headers.seen & bit;
            headers.seen |= bit;
            headers.*row.value = trimmed(value);
            return;
        }
        bit <<= 1;
    }
}

void vxTakeTraceContext(vxTD* slot, const VXTraceHeaders& headers) {
    VXTraceContext context{};
    const bool w3c = takeW3C(slot, headers, context);
    if (!w3c && !takeB3(slot, headers, context)) return;
    if (!keepIds(slot, context)) return;
    slot->traceFlag = context.flags;
    slot->traceState = context.flags;
    if (w3c) takeTracestate(slot, headers);
}

bool vxParseTraceparent(std::string_view text, VXTraceContext& context) {
    if (text.size() < kTraceparentSize) return false;
    const std::string_view version = text.substr(0, 2);
    if (!isHexText(version, 2) || version == "ff") return false;
    if (text.size() > kTraceparentSize && (version == "00" || text[kTraceparentSize] != '-')) return false;
    if (text[kTraceAt - 1] != '-' || text[kSpanAt - 1] != '-' || text[kFlagsAt - 1] != '-') return false;
    const std::string_view trace = text.substr(kTraceAt, kTraceIdSize),
                           span = text.substr(kSpanAt, kSpanIdSize), flags = text.substr(kFlagsAt, 2);
    if (!isId(trace, kTraceIdSize) || !isId(span, kSpanIdSize) || !isHexText(flags, 2)) return false;
    copyId(context.traceId, trace);
    copyId(context.parentId, span);
    context.flags = static_cast<std::uint8_t>(hexDigit(flags[0]) << 4 | hexDigit(flags[1]));
    return true;
}

bool vxTracestateIsValid(std::string_view text) {
    if (text.empty() || text.size() > kTracestateMax) return false;
    std::array<std::string_view, kMaxMembers> keys;
    std::size_t count = 0;
    for (std::size_t from = 0; from <= text.size();) {
        const std::size_t end = std::min(text.find(',', from), text.size());
        const std::string_view member = trimmed(text.substr(from, end - from));
        from = end + 1;
        if (member.empty()) continue;
        const std::size_t equal = member.find('=');
        if (equal == std::string_view::npos || count == kMaxMembers) return false;
        const std::string_view key = member.substr(0, equal);
        if (!isKey(key) || !isMemberValue(member.substr(equal + 1))) return false;
        if (std::find(keys.begin(), keys.begin() + count, key) != keys.begin() + count) return false;
        keys[count++] = key;
    }
    return count > 0;
}

bool vxParseB3(const VXTraceHeaders& headers, VXTraceContext& context) {
    constexpr std::string_view yes[] = {"1", "true"}, no[] = {"0", "false"};
    const bool sampled = std::find(std::begin(yes), std::end(yes), headers.sampled) != std::end(yes);
    const bool refused = std::find(std::begin(no), std::end(no), headers.sampled) != std::end(no);
    if (!isId(headers.traceId, kTraceIdSize) && !isId(headers.traceId, kShortTraceIdSize)) return false;
    if (!isId(headers.spanId, kSpanIdSize)) return false;
    if (!headers.parentSpanId.empty() && !isId(headers.parentSpanId, kSpanIdSize)) return false;
    if (!headers.sampled.empty() && !sampled && !refused) return false;
    copyId(context.traceId, headers.traceId);
    copyId(context.parentId, headers.spanId);
    context.flags = sampled ? 1 : 0;
    return true;
}

}  // namespace vx
