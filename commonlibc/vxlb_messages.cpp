#include "commonlibc/vxlb_messages.h"

#include <array>
#include <atomic>
#include <cstring>
#include <string_view>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/exception/VXException.h"
#include "commonlibc/flowpath/VXFlowpathGenerator.h"
#include "commonlibc/flowpath/VXFlowpathTime.h"
#include "commonlibc/flowpath/VXManageTierCallOut.h"
#include "commonlibc/flowpath/VXMethodTrace.h"
#include "commonlibc/flowpath/VXPerThreadData.h"
#include "commonlibc/http/VXHttpCapture.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_decimal.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_message_body.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {
namespace {

constexpr std::int64_t kAgeLimitSeconds = 300;
constexpr std::int32_t kExceptionStatus = 503;
constexpr std::size_t kCorrelationSize = sizeof(vxTD::correlationHeader);
constexpr std::size_t kTraceIdMax = 64, kTracestateMax = 512;  // bytes; every slot may hold them

// One message on its way to the engine.
struct Message {
    vxApplication& app;
    VXMessageBody body;
    std::int64_t flowpathInstance;
    bool singleRecord;
    const char* key;  // text of the flowpath in fpi_tls_map, terminated
    std::size_t keyLength;

    std::int32_t i32(std::size_t offset) const { return body.fixed.i32At(offset); }
    std::int64_t i64(std::size_t offset) const { return body.fixed.i64At(offset); }
    char* text(std::size_t index) const { return body.text[index]; }
    std::string_view view(std::size_t index) const {
        return body.text[index] ? std::string_view(body.text[index], body.length[index]) : "";
    }
    const char* shown(std::size_t index) const { return body.text[index] ? body.text[index] : ""; }
    long long instance() const { return flowpathInstance; }
};

// The slot of the message's flowpath, which has been active now; null, and the message counts as refused,
// when it is not there, or when no run is on: nothing would come of it.
vxTD* findSlot(const Message& message) {
    const bool inRun = message.app.Server.testRunRunning.load(std::memory_order_relaxed) != 0;
    vxTD* slot = inRun ? vxFindSlot(message.key, message.keyLength) : nullptr;
    if (!slot) {
        vxCountRefusedMessage();
        return nullptr;
    }
    slot->lastActivityTime.store(message.app.decoder.readSteadyMs, std::memory_order_relaxed);
    return slot;
}

bool autoInstrumentationOn(const vxApplication& app) {
    return app.VXAutoInstrumentation.sessionOn.load(std::memory_order_relaxed) &&
           app.VXBCISetting.agentTypeCode.load(std::memory_order_relaxed) == kAgentPhp;
}

void giveBack(vxTD* slot) {
    vxUnfileSlot(slot);
    reset(slot);
}

void onMethodEntry(Message& in) {
    vxTD* slot = findSlot(in);
    if (!slot) {
        VX_TRACE(2, kFlowpath, kInfo, "-- Not M Type 0  pfpi = %lld ", in.instance());
        VX_TRACE(2, kFlowpath, kInfo, "NOT FOUND FPI = %lld Method Entry = '%s'", in.instance(), in.shown(0));
        return;
    }
    if (in.text(0) && autoInstrumentationOn(in.app)) VX_UPCALL(addMethodInHash, in.text(0));
    VXMethodEntryArguments entry{};
    entry.methodName = in.text(0);
    entry.methodNameLength = in.body.length[0];
    entry.url = in.text(1);
    entry.urlParameter = in.text(2);
    entry.queryParameter = in.text(3);
    entry.threadId = in.i64(12);
    entry.time = in.i64(20);
    vxMethodEntry(slot, entry);
}

void onMethodExit(Message& in) {
    vxTD* slot = findSlot(in);
    if (!slot) {
        VX_TRACE(2, kFlowpath, kInfo, "NOT FOUND FPI = %lld Method Exit = '%s'", in.instance(), in.shown(0));
        return;
    }
    VXMethodExitArguments exit{};
    exit.methodName = in.text(0);
    exit.methodNameLength = in.body.length[0];
    exit.backendName = in.text(1);
    exit.phase = in.text(2);
    exit.status = in.i32(0);
    exit.calloutDone = in.i32(12);
    exit.threadId = in.i64(16);
    exit.methodWallTime = in.i64(24);
    exit.fpCPUTime = in.i64(40);
    exit.endTime = in.i64(68);
    if (in.text(0) && autoInstrumentationOn(in.app))
        VX_UPCALL(updateMethodInHash, in.text(0), exit.methodWallTime);
    slot->calloutSeq = in.singleRecord ? slot->seqNo : in.i64(60);
    vxMethodExit(slot, exit);
}

// What takes the place of the correlation header that functions written in go do not send. The headers are
// put together again: rules read them, too.
const char* correlationOfFunction(const Message& in, char (&copy)[kCorrelationSize]) {
    const char* name = in.app.VXSys.correlationIDHeader.get();
    if (!vx_word_get(in.app.VXSys.correlationIDEnabled)) return name;
    char* value = in.text(2) && name ? getBtBaseOnHeader1(in.text(2), name) : nullptr;
    if (!value) return nullptr;
    vxlb_copy_text(copy, sizeof(copy), value);
    value[std::strlen(value)] = '&';
    return copy;
}

void onTransactionStart(Message& in) {
    char number[24] = {};
    vxlb_put_decimal(number, in.flowpathInstance);
    const bool goFunction = in.singleRecord && in.app.VXBCISetting.agentTypeCode.load() == kAgentGo;
    char correlation[kCorrelationSize];
    VXStartArguments start{};
    start.fpstr = number;
    start.url = in.text(1);
    start.btHeaderValue = in.text(2);
    start.vxCookie = in.text(3);
    start.kwCookie = in.text(4);
    start.correlationHeader = goFunction ? correlationOfFunction(in, correlation) : in.text(5);
    start.startArgument = in.i64(32);
    start.startTime = in.i64(40);
    start.threadId = in.i64(48);
    vxTD* slot = startFP(start);
    if (!slot) {
        VX_TRACE(2, kFlowpath, kInfo, "NOT FOUND FPI - %lld START", in.instance());
        vxCountRefusedMessage();
        return;
    }
    if (in.text(0) && std::strchr(in.text(0), '_')) setTierCallOut(slot, in.text(0));
    vxFileSlot(slot, in.singleRecord ? in.key : slot->flowpathInstanceStr);
}

void onTransactionEnd(Message& in) {
    vxTD* slot = findSlot(in);
    if (!slot) {
        VX_TRACE(2, kFlowpath, kInfo, "NOT FOUND FPI = %lld END", in.instance());
        return;
    }
    endFP(slot, in.i32(0), in.i64(12), in.i64(20), in.i32(28));
    giveBack(slot);
}

// Resets bring the age sweep along, at most once in five minutes and before their own work.
void onTransactionReset(Message& in) {
    const std::int64_t nowMs = in.app.decoder.readSteadyMs;
    if (nowMs / 1000 - in.app.Server.lastSweepTimeMs / 1000 > kAgeLimitSeconds) {
        VX_TRACE(1, kFlowpath, kInfo, "Five minutes expired now resseting");
        in.app.Server.lastSweepTimeMs = nowMs;
        resetFPafterThreshold(nowMs);
    }
    vxTD* slot = findSlot(in);
    if (!slot) {
        VX_TRACE(2, kFlowpath, kInfo, "-- Not M Type 4  pfpi = %lld ", in.instance());
        return;
    }
    giveBack(slot);
}

void onException(Message& in) {
    vxTD* slot = findSlot(in);
    if (!slot) {
        VX_TRACE(2, kFlowpath, kInfo, "-- Not M Type 5  pfpi = %lld ", in.instance());
        return;
    }
    handleExceptionParameters(slot, {.className = in.view(0),
                                     .message = in.view(1),
                                     .throwingClass = in.view(2),
                                     .throwingMethod = in.view(3),
                                     .cause = in.view(4),
                                     .stackTrace = in.view(5),
                                     .exceptionTime = in.i64(36),
                                     .exceptionInt = in.i32(0),
                                     .exceptionThread = in.i64(44)});
}

// A comma would shift the fields behind the id in its record.
bool isTraceId(std::string_view text) {
    return text.size() <= kTraceIdMax && text.find(',') == std::string_view::npos;
}

bool isTracestate(std::string_view text) {
    return text.size() <= kTracestateMax;
}

// What the agent knows of the trace takes the place of what is held; no text leaves it.
void replaceText(const Message& in, char*& held, std::size_t index, bool (*fits)(std::string_view),
                 const char* what) {
    if (in.view(index).empty()) return;
    if (!fits(in.view(index))) {
        VX_TRACE(2, kFlowpath, kWarning, "%s of fp '%lld' is malformed and is ignored", what, in.instance());
        return;
    }
    VXLB_FREE(held, what, -1);
    held = vxlb_strdup(in.text(index));
}

void onHttpHeaders(Message& in) {
    vxTD* slot = findSlot(in);
    if (!slot) {
        VX_TRACE(2, kFlowpath, kInfo, "-- Not M Type 6  pfpi = %lld ", in.instance());
        return;
    }
    const bool request = in.text(1) && std::strcmp(in.text(1), "req") == 0;
    if (request) {
        replaceText(in, slot->OTL_tracestate, 4, isTracestate, "OTL_tracestate");
        replaceText(in, slot->OTL_traceID, 2, isTraceId, "OTL_traceID");
        replaceText(in, slot->OTL_parentID, 3, isTraceId, "OTL_parentID");
        slot->traceFlag = in.body.fixed.u8At(12);
        slot->traceState = in.i32(16);
    }
    if (slot->flowpathInstance.load(std::memory_order_relaxed) == 0) return;
    if (request) {
        sendHttpHdrReq(slot, in.text(0), in.text(1), in.i32(0));
    } else {
        sendHttpHdrRep(slot, in.text(0), in.text(1), in.i32(0));
    }
}

void onExitByException(Message& in) {
    vxTD* slot = findSlot(in);
    if (!slot) {
        VX_TRACE(2, kFlowpath, kInfo, "-- Not M Type 7  pfpi = %lld ", in.instance());
        return;
    }
    VXMethodExitArguments exit{};
    exit.methodName = in.text(0);
    exit.methodNameLength = in.body.length[0];
    exit.backendName = in.text(1);
    exit.status = kExceptionStatus;
    exit.threadId = in.i64(20);
    exit.methodWallTime = in.i64(28);
    exit.fpCPUTime = in.i64(36);
    exit.endTime = in.i64(44);
    vxMethodExitException(slot, exit, in.i32(0));
}

struct MessageRow {
    std::int32_t number;
    VXMessageShape shape;
    std::size_t instanceAt;     // where the flowpath's number stands
    const char* negativeWords;  // traced with a refusal; null: refused in silence
    const char* shortWords;
    TraceSeverity severity;
    void (*handle)(Message&);
};

// The strings of an exception stand in another order than their lengths.
constexpr auto kMessageRows = std::to_array<MessageRow>({
    {0,
     {44, 4, 4, 0b1111, {28, 32, 36, 40}, true},
     4,
     "Invalid(Negative) values received at Method Entry. Returning.",
     "Invalid(Negative) values received length -Ve at MethodEntry. Returning.",
     TraceSeverity::kInfo,
     onMethodEntry},
    {1,
     {76, 3, 3, 0b010, {48, 52, 56}, true},
     32,
     "Invalid(Negative) values received at MethodExit. Returning.",
     "Invalid(Negative) values for length received at MethodExit. Returning.",
     TraceSeverity::kInfo,
     onMethodExit},
    {2,
     {56, 6, 6, 0, {0, 4, 8, 12, 16, 20}, true},
     24,
     "Invalid(Negative) values received at transactionStart. Returning.",
     "Invalid(Negative) values received at transactionStart. Returning.",
     TraceSeverity::kInfo,
     onTransactionStart},
    {3,
     {32, 0, 0, 0, {}, false},
     4,
     nullptr,
     "Invalid(Negative) values received at transactionEnd. Returning.",
     TraceSeverity::kInfo,
     onTransactionEnd},
    {4,
     {8, 0, 0, 0, {}, false},
     0,
     nullptr,
     "Invalid(Negative) values received at transactionReset. Returning.",
     TraceSeverity::kInfo,
     onTransactionReset},
    {5,
     {52, 6, 6, 0, {4, 16, 8, 12, 20, 24}, false},
     28,
     nullptr,
     nullptr,
     TraceSeverity::kNone,
     onException},
    {6, {40, 5, 2, 0, {4, 8, 20, 24, 28}, false}, 32, nullptr, nullptr, TraceSeverity::kNone, onHttpHeaders},
    {7,
     {52, 2, 2, 0, {4, 8}, false},
     12,
     nullptr,
     "len condition failed, threfore returning",
     TraceSeverity::kError,
     onExitByException},
});

consteval bool rowsFollowNumbers() {
    for (std::size_t i = 0; i < kMessageRows.size(); ++i) {
        const MessageRow& row = kMessageRows[i];
        if (row.number != static_cast<std::int32_t>(i) || !row.handle) return false;
        if (row.shape.textCount > kMessageTexts || row.shape.checkedTexts > row.shape.textCount) return false;
    }
    return true;
}
static_assert(kMessageRows.size() == 8 && rowsFollowNumbers(), "row i describes message type i");

int refused(int answer) {
    vxCountRefusedMessage();
    return answer;
}

void traceRefusal(const MessageRow& row, BodyResult result) {
    const char* words = result == BodyResult::kNegative ? row.negativeWords : row.shortWords;
    if (!words || result == BodyResult::kTorn || result == BodyResult::kNoMemory) return;
    if (row.severity == TraceSeverity::kError) {
        VX_TRACE(1, kFlowpath, kError, "%s", words);
    } else {
        VX_TRACE(1, kFlowpath, kInfo, "%s", words);
    }
}

std::atomic<std::int32_t> resetsOfProcess{0};

// Slots that a sweep has found too old; a full batch is emptied and the walk begins again.
struct AgedSlots {
    std::int64_t nowMs;
    std::size_t count;
    std::array<vxTD*, 64> slots;
};

bool collectAged(const char*, void* value, void* argument) {
    auto& aged = *static_cast<AgedSlots*>(argument);
    auto* slot = static_cast<vxTD*>(value);
    if (slot->startTimeUs > 0 && vxWrapSub(aged.nowMs, slot->startSteadyMs) / 1000 > kAgeLimitSeconds)
        aged.slots[aged.count++] = slot;
    return aged.count < aged.slots.size();
}

}  // namespace

void vxCountRefusedMessage() {
    vxCurrent()->decoder.messagesRefused.fetch_add(1, std::memory_order_relaxed);
}

int readDataMessage(const char* body, std::int64_t bodyLength, std::int32_t messageType, int singleRecord,
                    const char* fpKey) {
    if (bodyLength < 1) return refused(kMessageCorrupt);
    if (messageType < 0 || static_cast<std::size_t>(messageType) >= kMessageRows.size()) {
        VX_TRACE(1, kFlowpath, kInfo, "M Type unknown");
        return refused(kMessageCorrupt);
    }
    const MessageRow& row = kMessageRows[static_cast<std::size_t>(messageType)];
    Message message{*vxCurrent(), {}, 0, singleRecord != 0, fpKey ? fpKey : "", 0};
    const VXByteView bytes(body, static_cast<std::size_t>(bodyLength));
    if (const BodyResult result = vxlb_take_body(row.shape, bytes, message.body);
        result != BodyResult::kTaken) {
        traceRefusal(row, result);
        return refused(kMessageConsumed);
    }
    if (!message.app.flowpath.fpi_tls_map) return refused(kMessageNoMap);
    message.flowpathInstance = message.i64(row.instanceAt);
    char number[24];
    if (message.singleRecord) {
        message.keyLength = std::strlen(message.key);
    } else {
        char* end = vxlb_put_decimal(number, message.flowpathInstance);
        *end = '\0';
        message.key = number;
        message.keyLength = static_cast<std::size_t>(end - number);
    }
    row.handle(message);
    return kMessageConsumed;
}

char* getBtBaseOnHeader1(char* haystack, const char* needle) {
    char* pair = haystack && needle && *needle ? std::strstr(haystack, needle) : nullptr;
    char* pairEnd = pair ? std::strchr(pair, '&') : nullptr;
    char* value = pair ? std::strchr(pair, '=') : nullptr;
    if (!pairEnd || !value || value > pairEnd) return nullptr;
    *pairEnd = '\0';
    return value + 1;
}

void resetFPafterThreshold(std::int64_t nowMs) {
    VXMap* map = vxCurrent()->flowpath.fpi_tls_map;
    if (vxlb_map_count(map) == 0) {
        VX_TRACE(1, kFlowpath, kInfo, "print No memory needed to be freed");
        return;
    }
    std::int32_t resets = 0;
    AgedSlots aged{nowMs, 0, {}};
    unsigned before = 0;
    do {
        before = vxlb_map_count(map);
        aged.count = 0;
        vxlb_map_each(map, collectAged, &aged);
        for (std::size_t i = 0; i < aged.count; ++i) giveBack(aged.slots[i]);
        resets += static_cast<std::int32_t>(aged.count);
    } while (aged.count == aged.slots.size() && vxlb_map_count(map) < before);
    const std::int32_t overAll = resetsOfProcess.fetch_add(resets) + resets;
    VX_TRACE(1, kFlowpath, kInfo,
             "Counter for Number of Reset Called in current Iteration = [%d] and Over all Counter for Number "
             "of Reset Called = [%d] ",
             resets, overAll);
}

}  // namespace vx
