#include "commonlibc/flowpath/VXCalloutItem.h"

#include "commonlibc/flowpath/VXMethodEvent.h"
#include "commonlibc/flowpath/VXSequenceBlob.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::int32_t kKindHttp = 1, kKindCustom = 8, kKindDb = 10;

bool isOwnForm(std::uint8_t type) {
    return type == kTypeDb || type == kTypeCustom || type == kTypeMq;
}

bool wentWell(std::int32_t status) {
    return status >= 200 && status < 300;
}

std::int32_t kindOf(const vxApplication& app, std::uint8_t type, std::uint8_t subtype) {
    if (type == kTypeMq) return subtype;
    if (type == kTypeCustom) return kKindCustom;
    if (type != kTypeDb) return kKindHttp;
    const bool dotnet = app.VXBCISetting.agentTypeCode.load(std::memory_order_relaxed) == kAgentDotnet;
    return dotnet ? subtype : kKindDb;
}

std::int64_t sequenceOf(const vxTD& slot, std::uint8_t type) {
    return type == kTypeHttp && slot.calloutSeq != 0 ? slot.calloutSeq : slot.seqNo;
}

VXWriter writerBehindItems(vxTD& slot) {
    return {slot.sequenceBlob + slot.sequenceBlobLen,
            static_cast<std::size_t>(kSequenceBlobSize - slot.sequenceBlobLen)};
}

// What all forms begin with, up to and with the offset.
void writeHead(VXWriter& out, char mark, const vxTD& slot, const VXCalloutItem& item,
               const VXMethodView& backend, std::int32_t kind, bool withQuery) {
    out.put(mark).number(sequenceOf(slot, backend.type)).put(':');
    out.number(static_cast<std::int32_t>(backend.id)).put(':').thousandths(item.wallTime).put(':');
    out.number(kind).put(':');
    if (withQuery) {
        out.number(slot.tlSQLObj.queryId);
    } else {
        out.put('-');
    }
    out.put(':').number(item.startOffset);
}

// ":U", or ":" alone.
void writeResource(VXWriter& out, const VXCalloutItem& item, bool shown) {
    out.put(':');
    if (shown) out.number(item.resourceId);
}

void writeResult(VXWriter& out, const vxTD& slot, const VXCalloutItem& item, std::uint8_t type,
                 bool withResource) {
    if (wentWell(slot.statusCode)) {
        writeResource(out, item, withResource);
        out.bytes(":::", 3).number(slot.statusCode);
    } else {
        out.put(':').number(slot.statusCode);
        writeResource(out, item, withResource);
        out.bytes("::", 2);
    }
    if (type == kTypeDb) out.put(':').recordText(slot.tlSQLObj.DBQueryParam);
    out.put('_');
}

void writeExceptionResult(VXWriter& out, const vxTD& slot, const VXCalloutItem& item, bool withResource) {
    out.put(':').number(slot.statusCode);
    writeResource(out, item, withResource);
    out.bytes("::_", 3);
}

void endItem(vxTD* slot, const VXWriter& out, std::int64_t threadId) {
    slot->sequenceBlobLen += static_cast<std::int32_t>(out.length());
    VXLB_FREE(slot->tlSQLObj.DBQueryParam, "DBQueryParam", -1);
    slot->tlSQLObj.DBQueryParam = nullptr;
    checkToDumpFPSeqBlob(slot, threadId);
}

bool showsResources(const vxApplication& app) {
    return vx_word_get(app.VXSys.enableIPResourceURL) != 0;
}

}  // namespace

void updateFPSeqBlobWithTierCallOutRecord(vxTD* slot, const VXCalloutItem& item) {
    const vxApplication& app = *vxCurrent();
    const VXMethodView backend = vxViewOf(item.backend);
    const bool own = isOwnForm(backend.type);
    VXWriter out = writerBehindItems(*slot);
    writeHead(out, wentWell(slot->statusCode) ? 'T' : 'E', *slot, item, backend,
              kindOf(app, backend.type, backend.subtype), backend.type == kTypeDb || backend.type == kTypeMq);
    writeResult(out, *slot, item, backend.type, !own && showsResources(app));
    if (!own) slot->calloutSeq = 0;
    endItem(slot, out, item.threadId);
}

void updateFPSeqBlobWithTierCallOutExceptionRecord(vxTD* slot, const VXCalloutItem& item) {
    const VXMethodView backend = vxViewOf(item.backend);
    const bool database = backend.type == kTypeDb;
    const bool withResource = !database && showsResources(*vxCurrent());
    if (!database && !withResource && backend.type != kTypeHttp) {
        VX_TRACE(1, kFlowpath, kError, "During Exception Callout, No CallOut Detected for method: [%s]",
                 backend.method->methodName);
        slot->calloutSeq = 0;
        return;
    }
    const VXGuard blob(slot->blobMutex);
    VXWriter out = writerBehindItems(*slot);
    writeHead(out, 'E', *slot, item, backend, database ? kKindDb : kKindHttp, database);
    writeExceptionResult(out, *slot, item, withResource);
    slot->calloutSeq = 0;
    endItem(slot, out, item.threadId);
}

}  // namespace vx
