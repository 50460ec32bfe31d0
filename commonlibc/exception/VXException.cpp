#include "commonlibc/exception/VXException.h"

#include <algorithm>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXMethodManager.h"
#include "commonlibc/exception/VXExceptionNames.h"
#include "commonlibc/exception/VXExceptionSettings.h"
#include "commonlibc/flowpath/VXFlowpathTime.h"
#include "commonlibc/flowpath/VXSequenceBlob.h"
#include "commonlibc/mm/VXExceptionMonitor.h"
#include "commonlibc/vxlb_escape.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kRecordMax = 65535;
constexpr std::int64_t kMsPerSecond = 1000;

bool isWanted(const VXExceptionState_t& state, const VXExceptionReport& report) {
    if (state.exceptionCaptureMode.load(std::memory_order_relaxed) == 0) {
        VX_TRACE(2, kExcpMon, kInfo, "Not Going to capture exception and 38 record will not dump");
        return false;
    }
    if (report.className.empty() && report.message.empty()) {
        VX_TRACE(2, kExcpMon, kInfo,
                 "VXExceptionStats: Returning as exception class and exception message is found null");
        return false;
    }
    return report.className.empty() || !vxIsIgnoredException(state, report.className.data());
}

// A method that a record names has to be told like one that was entered.
std::int32_t idOfThrowingMethod(std::string_view name) {
    mPP* method = vxFindMethod(name.data(), name.size());
    if (!method) {
        VX_TRACE(2, kExcpMon, kInfo, "mPP not found. Returning.");
        return 0;
    }
    markMethodUsed(method);
    return static_cast<std::int32_t>(method->methodId.load(std::memory_order_relaxed));
}

VXExceptionNumbers idsOf(const vxApplication& app, const VXExceptionReport& report) {
    const auto limit =
        static_cast<std::size_t>(std::max(vx_word_get(app.VXSys.maxExceptionMessageLength), 0));
    const bool causes = app.exceptions.exceptionCauseCaptureMode.load(std::memory_order_relaxed) == 1;
    VXExceptionNumbers ids{};
    ids.methodId = idOfThrowingMethod(report.throwingMethod);
    ids.classId = checkAndgenerateIDForDiscoveredExceptions(report.className);
    ids.throwingClassId = getIDAndDumpThrowingClassName(report.throwingClass);
    ids.throwingMethodId = getIDAndDumpThrowingMethodName(report.throwingMethod);
    ids.messageId = getIDAndDumpExceptionMessage(report.message.substr(0, limit));
    ids.causeId = causes ? getIDAndDumpExceptionCause(report.cause) : kNoExceptionName;
    return ids;
}

// Both times come over the wire: the difference wraps.
std::int64_t secondsInBase(const vxApplication& app, std::int64_t epochMs) {
    const auto base = static_cast<std::uint64_t>(app.Server.zorEpochDiff.load(std::memory_order_relaxed));
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(epochMs) - base) / kMsPerSecond;
}

void writeHead(VXWriter& out, const vxApplication& app, const vxTD& slot, const VXExceptionReport& report,
               const VXExceptionNumbers& numbers) {
    constexpr std::int32_t kUnused = -1;
    const std::int64_t fields[] = {slot.flowpathInstance.load(std::memory_order_relaxed),
                                   secondsInBase(app, report.exceptionTime),
                                   numbers.methodId,
                                   numbers.seq,
                                   kUnused,
                                   kUnused,
                                   numbers.classId,
                                   numbers.throwingClassId,
                                   numbers.throwingMethodId,
                                   report.exceptionInt < 1 ? -1 : report.exceptionInt,
                                   numbers.messageId,
                                   numbers.causeId};
    out.bytes("38,", 3);
    for (const std::int64_t field : fields) out.number(field).put(',');
}

// Agents behind another proxy have escaped it already. How many bytes; the last one of `size` stays free.
std::size_t writeStackTrace(char* to, std::size_t size, const vxApplication& app, const char* trace) {
    const std::size_t length = app.VXSys.proxyMode ? vxlb_copy_record_text(to, size, trace)
                                                   : escapeURLEncodingForExceptionStackTrace(to, size, trace);
    std::replace(to, to + length, '\r', ' ');
    return length;
}

}  // namespace

void handleExceptionParameters(vxTD* slot, const VXExceptionReport& report) {
    if (!slot || report.throwingMethod.empty() || !slot->tlBTObj || slot->tlIsFPExcluded) return;
    const vxApplication& app = *vxCurrent();
    if (!isWanted(app.exceptions, report)) return;

    VXExceptionNumbers numbers = idsOf(app, report);
    if (!report.className.empty()) updateCounterAndDurationForException(slot, report.className.data());
    vxRaise(slot->exceptionCount);
    ++slot->seqNo;
    if (vx_word_get(app.VXSys.enableExceptionInSeqBlob) == 1) {
        appendExceptionRecordInSeqBlob(slot,
                                       report.exceptionThread ? report.exceptionThread : slot->threadId);
        numbers.seq = slot->seqNo;
    }
    dumpExceptionRecords(slot, report, numbers);
}

void dumpExceptionRecords(const vxTD* slot, const VXExceptionReport& report,
                          const VXExceptionNumbers& numbers) {
    const vxApplication& app = *vxCurrent();
    char record[kRecordMax + 1];
    VXWriter head(record, kRecordMax);
    writeHead(head, app, *slot, report, numbers);
    std::size_t length = head.length();
    const bool traced = app.exceptions.stackTraceCaptureMode.load(std::memory_order_relaxed) == 1;
    if (traced && !report.stackTrace.empty())
        length += writeStackTrace(record + length, kRecordMax - length, app, report.stackTrace.data());
    record[length++] = '\n';
    dumpData(record, static_cast<std::int64_t>(length));
}

}  // namespace vx
