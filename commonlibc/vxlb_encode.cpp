#include "commonlibc/vxlb_encode.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <utility>

namespace vx {
namespace {

constexpr std::int32_t kHeaderLength = 12;

std::size_t lengthOf(const VXWireText& text) {
    return text.data ? text.length : 0;
}

// Puts fields behind each other; writeFrame() has made sure that the frame fits.
class FieldWriter {
public:
    explicit FieldWriter(char* out) : at_(out) {}

    FieldWriter& byte(char value) {
        *at_++ = value;
        return *this;
    }
    FieldWriter& i32(std::int32_t value) {
        return put(static_cast<std::uint32_t>(std::max(value, std::int32_t{0})));
    }
    FieldWriter& i64(std::int64_t value) {
        return put(static_cast<std::uint64_t>(std::max(value, std::int64_t{0})));
    }
    FieldWriter& length(const VXWireText& text) { return i32(static_cast<std::int32_t>(lengthOf(text))); }
    FieldWriter& text(const VXWireText& text) {
        const std::size_t size = lengthOf(text);
        if (size) std::memcpy(at_, text.data, size);
        at_ += size;
        return *this;
    }

private:
    // Written out instead of looped over: compilers make one store of it.
    template <class T, std::size_t... I>
    void split(T value, std::index_sequence<I...>) {
        ((at_[I] = static_cast<char>(value >> (8 * I) & 0xFF)), ...);
    }
    template <class T>
    FieldWriter& put(T value) {
        split(value, std::make_index_sequence<sizeof(T)>());
        at_ += sizeof(T);
        return *this;
    }

    char* at_;
};

// One frame: header, what `fixed` writes (`fixedLength` bytes), the strings, newline.
template <class Fixed>
std::int64_t writeFrame(char* out, std::size_t size, std::int32_t type, std::size_t fixedLength,
                        std::initializer_list<VXWireText> texts, Fixed&& fixed) {
    constexpr std::size_t kLongest = std::numeric_limits<std::int32_t>::max();
    std::size_t total = kFrameOverhead + fixedLength;
    for (const VXWireText& text : texts) {
        if (lengthOf(text) > kLongest - total) return -1;
        total += lengthOf(text);
    }
    if (total > size) return -1;
    FieldWriter to(out);
    to.byte('^').i32(kHeaderLength).i32(static_cast<std::int32_t>(total)).i32(type).byte('|');
    fixed(to);
    for (const VXWireText& text : texts) to.text(text);
    to.byte('\n');
    return static_cast<std::int64_t>(total);
}

}  // namespace

std::int64_t transactionStartEncode(char* out, std::size_t size, const VXTransactionStart& start) {
    return writeFrame(out, size, 2, 56,
                      {start.fp_header, start.url, start.btHeaderValue, start.vxCookieSet, start.kwCookieSet,
                       start.correlationHeader},
                      [&start](FieldWriter& to) {
                          to.length(start.fp_header).length(start.url).length(start.btHeaderValue);
                          to.length(start.vxCookieSet).length(start.kwCookieSet);
                          to.length(start.correlationHeader);
                          to.i64(start.flowpathInstance).i64(start.startArgument);
                          to.i64(start.startTime).i64(start.threadId);
                      });
}

std::int64_t MethodEntryEncode(char* out, std::size_t size, const VXMethodEntryRecord& entry) {
    return writeFrame(out, size, 0, 44,
                      {entry.methodName, entry.query_string, entry.urlParameter, entry.query_parameter},
                      [&entry](FieldWriter& to) {
                          to.i32(entry.methodId).i64(entry.flowpathInstance);
                          to.i64(entry.threadId).i64(entry.time);
                          to.length(entry.methodName).length(entry.query_string);
                          to.length(entry.urlParameter).length(entry.query_parameter);
                      });
}

std::int64_t MethodExitEncode(char* out, std::size_t size, const VXMethodExitRecord& exit) {
    return writeFrame(out, size, 1, 76, {exit.methodName, exit.backend_header, exit.requestNotificationPhase},
                      [&exit](FieldWriter& to) {
                          to.i32(exit.status).i32(exit.methodId).i32(exit.reserved).i32(exit.calloutDone);
                          to.i64(exit.threadId).i64(exit.methodWallTime);
                          to.i64(exit.flowpathInstance).i64(exit.fpCPUTime);
                          to.length(exit.methodName).length(exit.backend_header);
                          to.length(exit.requestNotificationPhase);
                          to.i64(exit.calloutSeq).i64(exit.endTime);
                      });
}

std::int64_t transactionEndEncode(char* out, std::size_t size, const VXTransactionEnd& end) {
    return writeFrame(out, size, 3, 32, {}, [&end](FieldWriter& to) {
        to.i32(end.status).i64(end.flowpathInstance).i64(end.endTime).i64(end.fpCPUTime).i32(end.endField);
    });
}

std::int64_t transactionResetEncode(char* out, std::size_t size, std::int64_t flowpathInstance) {
    return writeFrame(out, size, 4, 8, {}, [flowpathInstance](FieldWriter& to) { to.i64(flowpathInstance); });
}

std::int64_t ExceptionEncode(char* out, std::size_t size, const VXExceptionRecord& exception) {
    // The strings stand in another order than their lengths.
    return writeFrame(out, size, 5, 52,
                      {exception.className, exception.message, exception.throwingClassName,
                       exception.throwingMethodName, exception.cause, exception.stackTrace},
                      [&exception](FieldWriter& to) {
                          to.i32(exception.exceptionInt).length(exception.className);
                          to.length(exception.throwingClassName).length(exception.throwingMethodName);
                          to.length(exception.message).length(exception.cause).length(exception.stackTrace);
                          to.i64(exception.flowpathInstance).i64(exception.exceptionTime);
                          to.i64(exception.exceptionThread);
                      });
}

std::int64_t transactionEncodeHttp(char* out, std::size_t size, const VXHttpRecord& http) {
    return writeFrame(out, size, 6, 40,
                      {http.buffer, http.type, http.traceID, http.parentID, http.tracestate},
                      [&http](FieldWriter& to) {
                          to.i32(http.status).length(http.buffer).length(http.type);
                          to.byte(static_cast<char>(http.traceFlag)).byte(0).byte(0).byte(0);  // padding
                          to.i32(http.traceState).length(http.traceID);
                          to.length(http.parentID).length(http.tracestate).i64(http.flowpathInstance);
                      });
}

std::int64_t ExceptionMethodExitEncode(char* out, std::size_t size, const VXExceptionExitRecord& exit) {
    return writeFrame(out, size, 7, 52, {exit.methodName, exit.backendName}, [&exit](FieldWriter& to) {
        to.i32(exit.exitType).length(exit.methodName).length(exit.backendName);
        to.i64(exit.flowpathInstance).i64(exit.threadId).i64(exit.methodWallTime);
        to.i64(exit.fpCPUTime).i64(exit.endTime);
    });
}

}  // namespace vx
