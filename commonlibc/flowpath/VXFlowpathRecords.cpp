#include "commonlibc/flowpath/VXFlowpathRecords.h"

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/http/VXHttpHeaderMap.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

using Number = long long;  // as the traces print 64 bits

constexpr std::size_t kRecordSize = 16383;
constexpr std::size_t kArgumentRecordSize = 1023;
constexpr const char* kCustomHeader = "Custom_Header";
constexpr std::int32_t kStatusDiscard = -99;
constexpr std::size_t kSessionIdWidth = 21;

Number instanceOf(const vxTD* slot) {
    return slot->flowpathInstance.load(std::memory_order_relaxed);
}

// A record on the stack; sent when it is complete.
class Record {
public:
    explicit Record(std::int32_t number) : out(line_, sizeof(line_)) { out.number(number).put(','); }
    void send() {
        out.endLine();
        dumpData(line_, static_cast<std::int64_t>(out.length()));
    }

private:
    char line_[kRecordSize];

public:
    VXWriter out;
};

// What the 2 record looks like, decided before it is written.
struct HeaderForm {
    bool chained;  // carries its caller's flowpath
    bool marked;   // F behind the numbers of the identity
    bool query;    // "?" and the parameters behind the URL
    bool otel;     // trace ids in the tail
};

HeaderForm chooseForm(const vxApplication& app, const vxTD* slot) {
    HeaderForm form{};
    form.chained = slot->prevFlowpath != 0;
    form.marked = slot->tlForcedFP;
    form.query = slot->uRLParameters[0] != '\0';
    form.otel = vx_word_get(app.VXSys.otelEnabled) && vx_word_get(app.VXSys.otelGlobal) == 1;
    if (form.chained && form.otel) {
        // The collector knows these two by their looks: a forced one with parameters goes without its
        // marks, an unforced one without parameters keeps the bare "?".
        if (form.marked && form.query) {
            form.marked = false;
        } else if (!form.marked) {
            form.query = true;
        }
    }
    return form;
}

void writeNumber(VXWriter& out, std::int64_t value, bool marked) {
    out.number(value);
    if (marked) out.put('F');
}

void writeIdentity(VXWriter& out, const vxTD* slot, const HeaderForm& form) {
    writeNumber(out, instanceOf(slot), form.marked);
    if (!form.chained) return;
    writeNumber(out.put(':'), slot->prevFlowpath, form.marked);
    writeNumber(out.put(':'), slot->prevTierTime, form.marked);
}

// Session ids that the collector gave have a fixed width.
void writeSessionId(VXWriter& out, std::int64_t id) {
    char digits[24];
    VXWriter text(digits, sizeof(digits));
    text.number(id);
    if (id >= 1)
        for (std::size_t width = text.length(); width < kSessionIdWidth; ++width) out.put('0');
    out.bytes(digits, text.length());
}

void writeTail(VXWriter& out, const vxTD* slot, bool otel) {
    if (!otel) {
        out.bytes(",,,,", 4).number(slot->startTimeRel);
        return;
    }
    out.put(',').recordText(slot->OTL_traceID).put(',').recordText(slot->OTL_parentID).put(',');
    const std::int64_t state = slot->traceState;
    if (state < 0) out.put('-');
    if (state > -10 && state < 10) out.put('0');
    out.number(state < 0 ? -state : state).put(',').number(slot->startTimeRel);
}

void writeFlowpath(VXWriter& out, const vxTD* slot) {
    writeNumber(out, instanceOf(slot), slot->tlForcedFP);
}

void writeBlob(VXWriter& out, vxTD* slot) {
    out.bytes(slot->sequenceBlob, static_cast<std::size_t>(slot->sequenceBlobLen));
    slot->sequenceBlobLen = 0;
}

void discardWhatIsOut(vxTD* slot) {
    slot->statusCode = kStatusDiscard;
}

// True when an excluded flowpath still owes a 4 record.
bool keepExcluded(vxTD* slot) {
    if (!slot->fpHeaderDumped) {
        VX_TRACE(2, kFlowpath, kInfo,
                 "FP (%lld) was excluded as per BT and 3 record was not dumped, ignoring ...",
                 instanceOf(slot));
        return false;
    }
    VX_TRACE(2, kFlowpath, kInfo,
             "FP (%lld) was excluded as per BT, some data has already dumped. Marking -99", instanceOf(slot));
    discardWhatIsOut(slot);
    return true;
}

// True when a flowpath that was not captured is written all the same.
bool keepUncaptured(vxTD* slot, std::int32_t category) {
    if (category != kCategoryNormal) {
        VX_TRACE(2, kFlowpath, kInfo, "FP '%lld' was not captured, but it is slow, capturing...",
                 instanceOf(slot));
        return true;
    }
    if (!slot->fpHeaderDumped) {
        VX_TRACE(2, kFlowpath, kInfo, "FP '%lld' was not captured, neither it is slow, ignoring...",
                 instanceOf(slot));
        return false;
    }
    VX_TRACE(2, kFlowpath, kInfo, "FP (%lld) was not captured, some data has already dumped. Marking -99",
             instanceOf(slot));
    discardWhatIsOut(slot);
    return true;
}

bool keepFlowpath(const vxApplication& app, vxTD* slot, std::int32_t category) {
    if (slot->tlIsFPExcluded) return keepExcluded(slot);
    if (slot->tlIsFPCaptured || vx_word_get(app.bt.doNotDiscardFP)) return true;
    return keepUncaptured(slot, category);
}

}  // namespace

void dumpFPHeaderRecord(vxTD* slot, std::int64_t threadId) {
    if (!slot->tlBTObj) {
        VX_TRACE(1, kFlowpath, kError, "BTObject not found for fp - '%lld'. Returning", instanceOf(slot));
        return;
    }
    slot->fpHeaderDumped = 1;
    const vxApplication& app = *vxCurrent();
    const HeaderForm form = chooseForm(app, slot);
    const std::int64_t thread = threadId ? threadId : slot->threadId;

    Record record(2);
    VXWriter& out = record.out;
    writeIdentity(out, slot, form);
    out.put(',').number(slot->startTimeRel / 1000).put(',').number(thread).put(',');
    if (form.chained) {
        out.recordText(slot->prevTierSeq);
    } else {
        out.number(thread);
    }
    out.bytes(".1,", 3).number(slot->tlBTObj->btId.load(std::memory_order_relaxed)).put(',');
    out.recordText(slot->tlURl);
    if (form.query) out.put('?').recordText(slot->uRLParameters);
    out.put(',');
    if (vx_word_get(app.VXSys.correlationIDEnabled)) out.recordText(slot->correlationHeader);
    out.put(',').number(slot->parentFP).put(',');
    writeSessionId(out, slot->kwSessionId);
    out.put(',').number(slot->kwPageId).bytes(",,", 2).number(slot->endReason);
    out.put(',').number(slot->startArgument);
    writeTail(out, slot, form.otel);
    record.send();
}

void dumpIncompleteFlowpathSeqBlock(vxTD* slot, std::int64_t threadId) {
    if (!slot->tlBTObj) {
        VX_TRACE(1, kFlowpath, kError,
                 "BTObject not found for fp - '%lld'. Setting vxTD->sequenceBlobLen '%d' to 0. Returning",
                 instanceOf(slot), slot->sequenceBlobLen);
        slot->sequenceBlobLen = 0;
        return;
    }
    if (!slot->fpHeaderDumped) dumpFPHeaderRecord(slot, threadId);
    Record record(3);
    writeFlowpath(record.out, slot);
    writeBlob(record.out.put(','), slot);
    record.send();
}

void dumpCompleteFlowpathSeqBlock(vxTD* slot, std::int32_t category, std::int64_t fpCPUTime,
                                  std::int64_t duration, std::int32_t endField) {
    if (!slot) return;
    if (!slot->tlBTObj) {
        VX_TRACE(1, kFlowpath, kError, "BTObject not found for fp - '%lld'. Returning", instanceOf(slot));
        return;
    }
    const vxApplication& app = *vxCurrent();
    if (!keepFlowpath(app, slot, category)) return;
    if (!slot->fpHeaderDumped) dumpFPHeaderRecord(slot, slot->threadId);

    Record record(4);
    VXWriter& out = record.out;
    writeFlowpath(out, slot);
    out.put(',').number(slot->statusCode).put(',').number(category);
    out.put(',').number(fpCPUTime).put(',').number(duration);
    out.put(',').number(slot->tlBTObj->btId.load(std::memory_order_relaxed)).put(',').number(slot->endReason);
    out.bytes(",,", 2).number(endField).put(',');
    if (vx_word_get(app.VXSys.tagsEnabled)) out.number(getTagIdPerThread(slot)).put(',');
    writeBlob(out, slot);
    record.send();
}

void dump19RecordForSpecificMethodArg(vxTD* slot, std::uint32_t methodId, const char* phase) {
    const std::int32_t header = vxHttpHeaderId(kCustomHeader);
    if (header == kNoHttpHeader) return;
    char record[kArgumentRecordSize];
    VXWriter out(record, sizeof(record));
    out.bytes("19,", 3).number(instanceOf(slot)).bytes(",2:", 3).number(static_cast<std::int32_t>(methodId));
    out.put(':').number(++slot->seqNo).put(':').number(header).bytes(":1:<", 4);
    out.recordText(phase).bytes(">|", 2).endLine();
    VX_TRACE(2, kFlowpath, kInfo, "19 record = '%.*s'", static_cast<int>(out.length()), record);
    dumpData(record, static_cast<std::int64_t>(out.length()));
}

void dumpDataForDebug(vxTD* slot) {
    if (slot->debugDataLen < 1) return;
    Record record(100);
    record.out.number(instanceOf(slot)).put(',');
    record.out.bytes(slot->debugData, static_cast<std::size_t>(slot->debugDataLen));
    record.send();
}

// Tags of a flowpath come with tag resolution; without a tag array there is none.
std::int32_t getTagIdPerThread(const vxTD*) {
    return -1;
}

}  // namespace vx
