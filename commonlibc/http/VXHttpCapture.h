// Header capture: the headers of a request or a response, as an agent reports them in one text.
//
//     name=value&name=value      by agent type: Python name$value|..., go name$value with byte 127 between,
//                                others as above
//
// becomes a 12 record (request) or a 13 record (response): names as ids, values cut and encoded as the
// settings say, or as ids. Tags of rules that stand in headers, and the trace context of a request, are taken
// from the same text. Names of headers are compared without regard to case.
//
// Limits    The first 4,095 bytes and 1,024 fields of a text; items of 2,048 bytes in all, and one that does
//           not fit is left out whole. A field without a separator or name is passed over. No heap block.
// Errors    A slot without a BT and an empty text leave no record, nor does a collector that is not
// connected. Threads   Under the decode lock of the instance; current context.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "commonlibc/context/vx_application.h"

namespace vx {

// The headers of a request, and of a response with its status. `type` says no more than the function.
void sendHttpHdrReq(vxTD* slot, const char* buffer, const char* type, std::int32_t status);
void sendHttpHdrRep(vxTD* slot, const char* buffer, const char* type, std::int32_t status);
// Writes the record, 12 or 13; the status stands in a 13 record only.
void dumpHttpReqRepRecord(const vxTD* slot, std::string_view text, std::int32_t recordNumber,
                          std::int32_t status);
// A value, cut as the settings say and encoded for a record. The length written; `size` of
// 6 times the value's length plus 1 takes every value whole.
std::size_t checkHdrModeLengthAndEncodeHeadeValue(char* out, std::size_t size, char* value,
                                                  const VXHttpReqRespCaptureSettings_t& settings);

}  // namespace vx
