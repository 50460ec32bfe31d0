#include "commonlibc/http/VXHttpCapture.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/http/VXHttpHeaderMap.h"
#include "commonlibc/http/VXHttpNameList.h"
#include "commonlibc/http/VXTraceContext.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxbt/vxbt_tags.h"
#include "commonlibc/vxlb_escape.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kTextSize = 4096;  // with terminator
constexpr std::size_t kItemsSize = 2048;
constexpr std::size_t kEncodedSize = kItemsSize + 16;  // what was cut in here fits no item
constexpr std::size_t kRecordSize = 16383;
constexpr int kMaxFields = 1024;
constexpr std::int32_t kLevelOfRecords = 3;
constexpr std::int32_t kHeaderTag = 2;  // kind of a tag whose value stands in a header
constexpr std::int32_t kRequestRecord = 12, kResponseRecord = 13;
constexpr std::uint8_t kListedHeaders = 1;
constexpr std::size_t kValueCut = 1023, kEncodedFactor = 6;

struct Separators {
    char field;
    char value;
};
Separators separatorsOf(std::int32_t agentType) {
    if (agentType == kAgentPython) return {'|', '$'};
    if (agentType == kAgentGo) return {'\x7F', '$'};
    return {'&', '='};
}

// The items of one record.
class Items {
public:
    // "%d:<%s>", or with a row for the value "%d:%d"; nothing when it does not fit.
    void add(std::int32_t header, std::string_view value, const VXHttpHeader* valueRow) {
        VXWriter out(bytes_ + used_, sizeof(bytes_) - used_);
        if (used_) out.put('|');
        out.number(header).put(':');
        if (valueRow) {
            out.number(valueRow->id);
        } else {
            out.put('<').bytes(value.data(), value.size()).put('>');
        }
        if (!out.cut()) used_ += out.length();
    }
    std::string_view text() const { return {bytes_, used_}; }

private:
    char bytes_[kItemsSize];
    std::size_t used_ = 0;
};

// What is wanted of one set of headers.
struct Wanted {
    vxTD* slot;
    const VXHttpReqRespCaptureSettings_t& settings;
    std::int32_t btId;
    VXMap* names;  // null: no record is wanted
    bool tags, trace;
};

// How much of a value is written.
std::size_t keptLength(std::size_t length, const VXHttpReqRespCaptureSettings_t& settings) {
    if (!vx_word_get(settings.hdrValueLengthMode)) return length;
    const std::int32_t most = vx_word_get(settings.hdrValueMaxLength);
    std::size_t kept = std::min(length, kValueCut);
    if (most >= 0 && static_cast<std::size_t>(most) < kEncodedFactor * length)
        kept = std::min(kept, static_cast<std::size_t>(most));
    return kept;
}

VXHttpHeader* announced(VXHttpHeader* row) {
    if (row) announceHttpHeader(row);
    return row;
}

void capture(const Wanted& wanted, const char* name, char* value, Items& items) {
    if (vx_word_get(wanted.settings.hdrMode) == kListedHeaders && !vxNameListed(wanted.settings.list, name))
        return;
    VXHttpHeader* row = announced(searchAndUpdatehttpHashMapNode(name, wanted.names));
    if (!row) return;
    char encoded[kEncodedSize];
    const std::size_t length =
        checkHdrModeLengthAndEncodeHeadeValue(encoded, sizeof(encoded), value, wanted.settings);
    const VXHttpHeader* valueRow =
        row->valueAsId ? announced(vxHttpValueRow(encoded, wanted.names)) : nullptr;
    items.add(row->id, {encoded, length}, valueRow);
}

// Calls take(name, value) for the fields of a text, which is taken apart in place.
template <class Take>
void eachHeader(char* text, Separators separators, Take take) {
    const char between[] = {separators.field, '\0'};
    char* fields[kMaxFields];
    const int count = vxlb_get_tokens_with_multi_delimiter(text, fields, between, kMaxFields);
    for (int i = 0; i < count; ++i) {
        char* value = std::strchr(fields[i], separators.value);
        if (!value || value == fields[i]) continue;
        *value++ = '\0';
        take(fields[i], value);
    }
}

Wanted whatIsWanted(const vxApplication& app, vxTD* slot, const VXHttpReqRespCaptureSettings_t& settings,
                    bool ofRequest) {
    Wanted wanted{slot, settings, slot->tlBTObj->btId.load(std::memory_order_relaxed), nullptr, false, false};
    wanted.tags = vx_word_get(app.VXSys.tagsEnabled) && wanted.btId > 0 &&
                  vxHasTagOfKind(app.bt.ruleSet.load(std::memory_order_acquire), wanted.btId, kHeaderTag);
    // The map may have been made by another thread just now: its lock says where it stands.
    if (vx_word_get(settings.captureLevel) >= kLevelOfRecords) wanted.names = initHttpHashMapNode();
    wanted.trace = ofRequest && vxTraceContextOn(app);
    return wanted;
}

bool hasHeaders(const vxTD* slot, const char* buffer) {
    return slot && buffer && *buffer && slot->tlBTObj;
}

void takeHeaders(const vxApplication& app, const Wanted& wanted, const char* buffer,
                 std::int32_t recordNumber, std::int32_t status) {
    if (!wanted.tags && !wanted.names && !wanted.trace) return;
    char text[kTextSize];
    vxlb_copy_text(text, sizeof(text), buffer);
    Items items;
    VXTraceHeaders traceHeaders{};
    const std::int32_t agentType = app.VXBCISetting.agentTypeCode.load(std::memory_order_relaxed);
    eachHeader(text, separatorsOf(agentType), [&](const char* name, char* value) {
        if (wanted.tags) VX_UPCALL(resolveTransactionTag, wanted.slot, name, value, wanted.btId, kHeaderTag);
        if (wanted.trace) vxNoteTraceHeader(app.http.trace, traceHeaders, name, value);
        if (wanted.names) capture(wanted, name, value, items);
    });
    if (wanted.trace) vxTakeTraceContext(wanted.slot, traceHeaders);
    if (wanted.names) dumpHttpReqRepRecord(wanted.slot, items.text(), recordNumber, status);
}

}  // namespace

void sendHttpHdrReq(vxTD* slot, const char* buffer, const char* /*type*/, std::int32_t /*status*/) {
    if (!hasHeaders(slot, buffer)) return;
    const vxApplication& app = *vxCurrent();
    takeHeaders(app, whatIsWanted(app, slot, app.http.request, true), buffer, kRequestRecord, 0);
}

void sendHttpHdrRep(vxTD* slot, const char* buffer, const char* /*type*/, std::int32_t status) {
    if (!hasHeaders(slot, buffer)) return;
    const vxApplication& app = *vxCurrent();
    takeHeaders(app, whatIsWanted(app, slot, app.http.response, false), buffer, kResponseRecord, status);
}

void dumpHttpReqRepRecord(const vxTD* slot, std::string_view text, std::int32_t recordNumber,
                          std::int32_t status) {
    if (vxCurrent()->Server.isTenRecordDump != 1) return;
    char record[kRecordSize];
    VXWriter out(record, sizeof(record));
    out.number(recordNumber).put(',').number(slot->flowpathInstance.load(std::memory_order_relaxed)).put(',');
    if (recordNumber == kResponseRecord) out.number(status).put(',');
    out.bytes(text.data(), text.size()).endLine();
    dumpData(record, static_cast<std::int64_t>(out.length()));
}

std::size_t checkHdrModeLengthAndEncodeHeadeValue(char* out, std::size_t size, char* value,
                                                  const VXHttpReqRespCaptureSettings_t& settings) {
    const std::size_t kept = keptLength(std::strlen(value), settings);
    const char behind = std::exchange(value[kept], '\0');  // for a moment: others have views of the value
    const bool ofGo = vxCurrent()->VXBCISetting.agentTypeCode.load(std::memory_order_relaxed) == kAgentGo;
    const std::size_t written = ofGo ? escapeURLEncoding(out, size, value) : escapeHTML(out, size, value, 0);
    value[kept] = behind;
    return written;
}

}  // namespace vx
