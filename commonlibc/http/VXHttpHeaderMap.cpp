#include "commonlibc/http/VXHttpHeaderMap.h"

#include <apr_strings.h>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/http/VXHttpNameList.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::int32_t kFirstHeaderId = 1;
constexpr std::int32_t kShareOfValues = 2;  // one row of so many
constexpr std::size_t kNameRecordSize = kHeaderNameMax + 32;

void traceCeilingOnce(VXHttpState_t& http) {
    if (http.headersTraced) return;
    http.headersTraced = 1;
    VX_TRACE(1, kFlowpath, kError, "maxHeaderNames = %d header names are known, others are left out",
             VXProxy.ceilings.maxHeaderNames);
}

std::int32_t rowsOf(const VXHttpState_t& http) {
    return http.nextHeaderId - kFirstHeaderId;
}

// Rows live as long as their map, in its pool.
VXHttpHeader* newRow(VXMap& map, const char* name) {
    const VXGuard guard(map.mutex);
    auto* row = static_cast<VXHttpHeader*>(apr_pcalloc(map.pool, sizeof(VXHttpHeader)));
    if (row) row->name = apr_pstrdup(map.pool, name);
    return row && row->name ? row : nullptr;
}

bool mayHaveRow(const char* name, const VXMap* map) {
    return map && name && *name && strnlen(name, kHeaderNameMax + 1) <= kHeaderNameMax;
}

}  // namespace

VXMap* initHttpHashMapNode() {
    vxApplication& app = *vxCurrent();
    const VXGuard guard(app.http.headerMutex);
    if (!app.http.headers) {
        app.http.nextHeaderId = kFirstHeaderId;
        app.http.headers = create_hashmap(app.pool);
    }
    return app.http.headers;
}

VXHttpHeader* searchAndUpdatehttpHashMapNode(const char* name, VXMap* map) {
    if (!mayHaveRow(name, map)) return nullptr;
    const VXGuard guard(vxCurrent()->http.headerMutex);
    auto* known = static_cast<VXHttpHeader*>(search_hashmap(name, map));
    return known ? known : updateHttpHashMapNode(name, map);
}

VXHttpHeader* vxHttpValueRow(const char* value, VXMap* map) {
    if (!mayHaveRow(value, map)) return nullptr;
    const VXHttpState_t& http = vxCurrent()->http;
    const VXGuard guard(http.headerMutex);
    if (auto* known = static_cast<VXHttpHeader*>(search_hashmap(value, map))) return known;
    if (rowsOf(http) >= VXProxy.ceilings.maxHeaderNames / kShareOfValues) return nullptr;
    return updateHttpHashMapNode(value, map);
}

VXHttpHeader* updateHttpHashMapNode(const char* name, VXMap* map) {
    VXHttpState_t& http = vxCurrent()->http;
    if (rowsOf(http) >= VXProxy.ceilings.maxHeaderNames) {
        traceCeilingOnce(http);
        return nullptr;
    }
    VXHttpHeader* row = newRow(*map, name);
    if (!row) return nullptr;
    row->id = http.nextHeaderId++;
    row->valueAsId = vxNameListed(http.valuesAsId, name) ? 1 : 0;
    (http.lastHeader ? http.lastHeader->next : http.firstHeader) = row;
    http.lastHeader = row;
    modify_hashmap(row->name, row, map);
    return row;
}

std::int32_t vxHttpHeaderId(const char* name) {
    const VXHttpState_t& http = vxCurrent()->http;
    VXHttpHeader* row = nullptr;
    {
        const VXGuard guard(http.headerMutex);
        row = static_cast<VXHttpHeader*>(search_hashmap(name, http.headers));
    }
    if (!row) return kNoHttpHeader;
    announceHttpHeader(row);
    return row->id;
}

void announceHttpHeader(VXHttpHeader* header) {
    if (header->told.load(std::memory_order_relaxed) == kHeaderTold) return;
    header->told.store(kHeaderUntold, std::memory_order_relaxed);
    if (!vxCurrent()->data.data_thread_running.load(std::memory_order_relaxed)) return;
    if (dumpHttpHeaderName(header->name, header->id))
        header->told.store(kHeaderTold, std::memory_order_relaxed);
}

bool dumpHttpHeaderName(const char* name, std::int32_t id) {
    char record[kNameRecordSize];
    VXWriter out(record, sizeof(record));
    out.bytes("6,", 2).number(id).put(',').recordText(name).endLine();
    return vxOfferRecord(record, static_cast<std::int64_t>(out.length()));
}

void clearHeaderMetaDataFlags() {
    const VXHttpState_t& http = vxCurrent()->http;
    const VXGuard guard(http.headerMutex);
    for (VXHttpHeader* row = http.firstHeader; row; row = row->next) {
        std::uint8_t told = kHeaderTold;
        row->told.compare_exchange_strong(told, kHeaderUntold, std::memory_order_relaxed);
    }
}

}  // namespace vx
