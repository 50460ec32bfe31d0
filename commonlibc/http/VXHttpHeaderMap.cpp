#include "commonlibc/http/VXHttpHeaderMap.h"

#include <apr_strings.h>

#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int32_t kFirstHeaderId = 1;

void traceCeilingOnce(VXHttpState_t& http) {
    if (http.headersTraced) return;
    http.headersTraced = 1;
    VX_TRACE(1, kFlowpath, kError, "maxHeaderNames = %d header names are known, others are left out",
             VXProxy.ceilings.maxHeaderNames);
}

// Rows live as long as their map, in its pool.
VXHttpHeader* newRow(VXMap& map, const char* name) {
    const VXGuard guard(map.mutex);
    auto* row = static_cast<VXHttpHeader*>(apr_pcalloc(map.pool, sizeof(VXHttpHeader)));
    if (row) row->name = apr_pstrdup(map.pool, name);
    return row && row->name ? row : nullptr;
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
    if (!map || !name || !*name) return nullptr;
    const VXGuard guard(vxCurrent()->http.headerMutex);
    auto* known = static_cast<VXHttpHeader*>(search_hashmap(name, map));
    return known ? known : updateHttpHashMapNode(name, map);
}

VXHttpHeader* updateHttpHashMapNode(const char* name, VXMap* map) {
    VXHttpState_t& http = vxCurrent()->http;
    if (http.nextHeaderId - kFirstHeaderId >= VXProxy.ceilings.maxHeaderNames) {
        traceCeilingOnce(http);
        return nullptr;
    }
    VXHttpHeader* row = newRow(*map, name);
    if (!row) return nullptr;
    row->id = http.nextHeaderId++;
    modify_hashmap(row->name, row, map);
    return row;
}

std::int32_t vxHttpHeaderId(const char* name) {
    const VXHttpState_t& http = vxCurrent()->http;
    const VXGuard guard(http.headerMutex);
    const auto* row = static_cast<const VXHttpHeader*>(search_hashmap(name, http.headers));
    return row ? row->id : kNoHttpHeader;
}

}  // namespace vx
