// Names of exceptions, and the ids that stand for them in 38 records: five tables of an instance.
//
// | table | key | metadata record |
// |---|---|---|
// | class, throwing class, throwing method | name | 32, 33, 34 |
// | message, cause | text | 35, 36 |
//
// A name gets the next id of its table, from 1 on, when it is met for the first time, and its metadata record
// tells the collector. When there was no room for that record, the next use of the name brings it again; the
// first data connection of each run learns all of them (VXMetadataReplay).
//
// Limits    A name is cut at 1,023 bytes: what differs behind them is one name. maxExceptionRows rows a
//           table; beyond them new names get no id, and that is traced once per table and run.
// Errors    kNoExceptionName: an empty name, a full table, no memory.
// Threads   A table's mutex inside; any thread. All on the current context.
#pragma once

#include <cstdint>
#include <string_view>

#include "commonlibc/context/vx_application.h"

namespace vx {

inline constexpr std::int32_t kNoExceptionName = -1;

// The id of a name.
std::int32_t vxExceptionNameId(ExceptionName kind, std::string_view name);
inline std::int32_t checkAndgenerateIDForDiscoveredExceptions(std::string_view className) {
    return vxExceptionNameId(ExceptionName::kClass, className);
}
// A report without a throwing class has "-" for it.
inline std::int32_t getIDAndDumpThrowingClassName(std::string_view className) {
    return vxExceptionNameId(ExceptionName::kThrowingClass, className.empty() ? "-" : className);
}
inline std::int32_t getIDAndDumpThrowingMethodName(std::string_view methodName) {
    return vxExceptionNameId(ExceptionName::kThrowingMethod, methodName);
}
inline std::int32_t getIDAndDumpExceptionMessage(std::string_view message) {
    return vxExceptionNameId(ExceptionName::kMessage, message);
}
inline std::int32_t getIDAndDumpExceptionCause(std::string_view cause) {
    return vxExceptionNameId(ExceptionName::kCause, cause);
}

// Number of the metadata record of a table, 32 to 36.
constexpr int vxExceptionRecordNumber(ExceptionName kind) {
    return 32 + static_cast<int>(kind);
}
// Writes "<number>,<id>,<text>", at most 1,023 bytes. False when there was no room for it.
[[nodiscard]] bool dumpExceptionMetaRecord(ExceptionName kind, std::int32_t id, const char* text);
// Frees all rows of the current context, which nobody uses any more.
void vxFreeExceptionNames();

}  // namespace vx
