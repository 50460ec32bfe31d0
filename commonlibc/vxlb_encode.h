// Record writers: the frames that agents send, for the agent library and as the decoder's reference.
//
// Each writer puts one frame ("^", 12, total length, type, "|", fixed part, strings, newline) at the start of
// a caller's buffer. Negative numeric fields are written as 0. A null text is one of length 0.
//
// Errors    The frame's length, or -1 when it does not fit (the buffer is unchanged).
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr std::size_t kFrameOverhead = 15;

struct VXWireText {
    const char* data;
    std::size_t length;
};
struct VXTransactionStart {
    std::int64_t flowpathInstance, startArgument, startTime, threadId;
    VXWireText fp_header, url, btHeaderValue, vxCookieSet, kwCookieSet, correlationHeader;
};
struct VXMethodEntryRecord {
    std::int32_t methodId;
    std::int64_t flowpathInstance, threadId, time;
    VXWireText methodName, query_string, urlParameter, query_parameter;
};
struct VXMethodExitRecord {
    std::int32_t status, methodId, reserved, calloutDone;
    std::int64_t threadId, methodWallTime, flowpathInstance, fpCPUTime, calloutSeq, endTime;
    VXWireText methodName, backend_header, requestNotificationPhase;
};
struct VXTransactionEnd {
    std::int32_t status;
    std::int64_t flowpathInstance, endTime, fpCPUTime;
    std::int32_t endField;
};
struct VXExceptionRecord {
    std::int32_t exceptionInt;
    std::int64_t flowpathInstance, exceptionTime, exceptionThread;
    VXWireText className, message, throwingClassName, throwingMethodName, cause, stackTrace;
};
struct VXHttpRecord {
    std::int32_t status;
    std::uint8_t traceFlag;
    std::int32_t traceState;
    std::int64_t flowpathInstance;
    VXWireText buffer, type, traceID, parentID, tracestate;
};
struct VXExceptionExitRecord {
    std::int32_t exitType;
    std::int64_t flowpathInstance, threadId, methodWallTime, fpCPUTime, endTime;
    VXWireText methodName, backendName;
};

std::int64_t transactionStartEncode(char* out, std::size_t size, const VXTransactionStart& start);
std::int64_t MethodEntryEncode(char* out, std::size_t size, const VXMethodEntryRecord& entry);
std::int64_t MethodExitEncode(char* out, std::size_t size, const VXMethodExitRecord& exit);
std::int64_t transactionEndEncode(char* out, std::size_t size, const VXTransactionEnd& end);
std::int64_t transactionResetEncode(char* out, std::size_t size, std::int64_t flowpathInstance);
std::int64_t ExceptionEncode(char* out, std::size_t size, const VXExceptionRecord& exception);
std::int64_t transactionEncodeHttp(char* out, std::size_t size, const VXHttpRecord& http);
std::int64_t ExceptionMethodExitEncode(char* out, std::size_t size, const VXExceptionExitRecord& exit);

}  // namespace vx
