// What is captured of exceptions: the keywords that say so, and the classes that are ignored.
//
// Limits    1,024 class names on the filter list; later ones are dropped.
// Errors    A refused value is traced and leaves what is set. Without memory the former list stays.
// Threads   Parsers on the control thread, defaults where a run ends; they take the decode lock for the swap
//           of the list, and free the former one behind it. vxIsIgnoredException under the decode lock.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// "mode%20stack traces%20type%20depth%20causes": exceptionCaptureMode 0 to 2, stackTraceCaptureMode 0 or 1,
// exceptionType 0, 1 or 3, stackTraceMaxDepth above 0, exceptionCauseCaptureMode 0 or 1. A value out of range
// ends it, as does a stackTraceCaptureMode of 0: what stands behind keeps its value.
void setExceptionCaptureSettings(const char* value);
// Class names at ","; "NA" (case ignored) or nothing turns filtering off.
void parseExceptionFilteringList(const char* value);
void setBackendErrorDetectionMode(const char* value);
// Everything above as an instance begins with it.
void setdefaultValuesForException();
// True when the filter list holds exactly this class name.
bool vxIsIgnoredException(const VXExceptionState_t& state, const char* className);

}  // namespace vx
