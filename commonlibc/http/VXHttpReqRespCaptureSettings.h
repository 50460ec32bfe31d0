// Settings of header capture: what the collector wants of requests and of responses.
//
//     captureHTTPReqFullFp, captureHTTPRespFullFp    level%20hdrMode%20hdrValueLengthMode%20hdrValueMaxLength
//     hdrListForValueAsId                            names separated by "," or "%2C"
//     vxHttpHdrCaptureFileList                       a file, one name a line: "request|Name" and
//     "response|Name"
//                                                    for one of them, "Name" for both; "#" begins a comment
//
// Fields behind the first one may be missing; what is missing keeps its value.
//
// Errors    A value or line that is refused is traced and has no effect.
// Threads   Control thread, without the decode lock: it is taken for the swap of a list. Current context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Back to what a start finds: nothing is captured, no list.
void initVXHttpReqRespCaptureSettings(int ofResponse);
void setHttpReqRespCaptureSettings(char* value, const char* keyword, int index);
void sethdrListForValueAsId(char* value, const char* keyword, int index);

// What the content of a list file names; a text is taken apart in place. False without memory, and nothing
// is changed.
bool readHttpHeaderListFile(char* text, VXHttpNameList& request, VXHttpNameList& response);
// Brings the lists of a file into force.
void setHttpHashMapNode(char* text);
// A run begins without the lists of the former one.
void dropHttpHeaderLists();

}  // namespace vx
