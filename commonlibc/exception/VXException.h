// Exceptions inside a transaction: from an agent's report to a 38 record with ids in place of names.
//
// A report without a throwing method, of a transaction without a BT or of an excluded one does nothing; nor
// does one that the settings leave out (capture off, class on the filter list, neither class nor message).
//
// Limits    A 38 record has at most 65,535 bytes; the stack trace is cut, never inside an escape. The message
//           is cut at maxExceptionMessageLength.
// Threads   Under the decode lock. No allocation once the names are known.
#pragma once

#include <cstdint>
#include <string_view>

#include "commonlibc/context/vx_application.h"

namespace vx {

// A report; texts end in a terminator, one that is missing is empty.
struct VXExceptionReport {
    std::string_view className, message, throwingClass, throwingMethod, cause, stackTrace;
    std::int64_t exceptionTime;  // ms since the Unix epoch
    std::int32_t exceptionInt;
    std::int64_t exceptionThread;  // 0: the transaction's
};
void handleExceptionParameters(vxTD* slot, const VXExceptionReport& report);

// The numbers of a 38 record; ids as VXExceptionNames gives them.
struct VXExceptionNumbers {
    std::int32_t methodId;  // of the throwing method as the method table knows it; 0: not known
    std::int64_t seq;       // of the blob's item; 0: there is none
    std::int32_t classId, throwingClassId, throwingMethodId, messageId, causeId;
};
void dumpExceptionRecords(const vxTD* slot, const VXExceptionReport& report,
                          const VXExceptionNumbers& numbers);

}  // namespace vx
