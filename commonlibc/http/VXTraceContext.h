// Trace context of a request: which trace it belongs to, from its headers.
//
//     traceparent    00-<32 hex: trace>-<16 hex: caller's span>-<2 hex: flags>; later versions may go on
//     tracestate     up to 32 members key=value, separated by ","
//     X-B3-TraceId, X-B3-SpanId, X-B3-ParentSpanId, X-B3-Sampled    16 or 32, 16, 16 hex; 1, 0, true, false
//
// Hexadecimal is lower-case, an id of zeros alone is none. The first form goes before the second; what an
// agent has worked out itself goes before both.
//
// Limits    A tracestate has at most 512 bytes.
// Errors    A malformed header, or one that comes twice, is ignored with a trace line at level 2.
// Threads   Under the decode lock; parsers any.
#pragma once

#include <cstdint>
#include <string_view>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Values of the headers of one request, borrowed; without data where a header is missing.
struct VXTraceHeaders {
    std::string_view traceparent, tracestate, traceId, spanId, parentSpanId, sampled;
    std::uint32_t seen, twice;  // bits in the order above
};

struct VXTraceContext {
    char traceId[33];   // as the header has it, terminated
    char parentId[17];  // the caller's span
    std::uint8_t flags;
};

// True while a request's headers are to be looked at.
bool vxTraceContextOn(const vxApplication& app);
// Notes the value of a trace header that is switched on; other headers are passed over.
void vxNoteTraceHeader(const VXTraceSettings_t& switches, VXTraceHeaders& headers, const char* name,
                       const char* value);
// Puts the trace that the headers name into a slot without one.
void vxTakeTraceContext(vxTD* slot, const VXTraceHeaders& headers);

// False, and `context` is unchanged, for a malformed text.
bool vxParseTraceparent(std::string_view text, VXTraceContext& context);
bool vxTracestateIsValid(std::string_view text);
bool vxParseB3(const VXTraceHeaders& headers, VXTraceContext& context);

}  // namespace vx
