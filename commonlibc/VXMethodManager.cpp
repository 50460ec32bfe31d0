#include "commonlibc/VXMethodManager.h"

#include <apr_strings.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXMethodClasses.h"
#include "commonlibc/backend/VXBackendMonitor.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kRecordMax = 1023;
constexpr std::size_t kNameMax = 1023;
constexpr std::size_t kKeySize = 1100;
constexpr std::uint32_t kUnassignedId = 0xFFFFFFFF;
constexpr std::uint8_t kSubtypeAnnounced = 1;
constexpr const char* kOthersName = "Others";
constexpr const char* kSqlDbName = "DB_SQLDB";

struct BackendKind {
    std::uint8_t type;
    int subtype;  // kAnySubtype: not looked at
    const char* prefix;
    const char* defaultName;  // where the method gave no name; null: none can be had
};
constexpr int kAnySubtype = -1;
constexpr BackendKind kBackendKinds[] = {
    {kTypeHttp, kAnySubtype, "HTTP", nullptr}, {kTypeCustom, kAnySubtype, "CUSTOM", nullptr},
    {kTypeMq, 13, "MQ", "MQ_RABBIT"},          {kTypeDb, 10, "DB", kSqlDbName},
    {kTypeDb, 16, "REDIS", "DB_REDIS"},        {kTypeDb, 15, "MONGO", "DB_MONGO"},
    {kTypeDb, 28, "ORACLE", "DB_ORACLE"},      {kTypeDb, 29, "MYSQL", "DB_MYSQL"},
    {kTypeDb, 20, "PGSQL", "DB_PGSQL"},        {kTypeDb, 5, "MEMCACHED", "DB_MEMCACHED"},
    {kTypeDb, 31, "ODBC", "DB_ODBC"},          {kTypeDb, 9, "CASSANDRA", "DB_CASSANDRA"},
    {kTypeDb, 32, "SQLITE", "DB_SQLITE"},      {kTypeDb, 34, "FIREBIRD", "DB_FIREBIRD"},
    {kTypeDb, 6, "COUCHBASE", "DB_COUCHBASE"}, {kTypeDb, 33, "DB2", "DB_DB2"},
};

const BackendKind* findKind(std::uint8_t type, std::uint8_t subtype) {
    for (const BackendKind& kind : kBackendKinds)
        if (kind.type == type && (kind.subtype == kAnySubtype || kind.subtype == subtype)) return &kind;
    return nullptr;
}

// The key of a back-end; null where its kind needs a name and has none.
const char* composeKey(const BackendKind& kind, const char* name, char (&key)[kKeySize]) {
    if (!name || !*name) return kind.defaultName;
    VXWriter(key, sizeof(key)).text(kind.prefix).put('_').text(name).terminate();
    return key;
}

mPP* search(const char* name, std::size_t length, const methodHashMapNode_t* table) {
    const auto kept = static_cast<std::int64_t>(std::min(length, kNameMax));
    return static_cast<mPP*>(search_hashmap_len(name, kept, table->map));
}
mPP* search(const char* name, const methodHashMapNode_t* table) {
    return search(name, std::strlen(name), table);
}

// A name as it was reported: what stands behind a terminator inside it does not count.
mPP* searchReported(const char* name, std::size_t length, const methodHashMapNode_t* table) {
    mPP* known = search(name, length, table);
    if (known) return known;
    const std::size_t real = strnlen(name, length);
    return real < length ? search(name, real, table) : nullptr;
}

methodHashMapNode_t* currentTable(const vxApplication& app) {
    return app.method.methodHashMapNode.load(std::memory_order_acquire);
}

std::uint32_t takeMethodId(VXMethodState_t& method) {
    if (method.methodIdCounter == 0) method.methodIdCounter = 1;
    return method.methodIdCounter++;
}

// A plain method that was found. Lock held.
mPP* reuseMethod(vxApplication& app, mPP* method) {
    if (method->methodId.load(std::memory_order_relaxed) == kUnassignedId)
        method->methodId.store(takeMethodId(app.method), std::memory_order_relaxed);
    const bool unannounced = method->type.load(std::memory_order_relaxed) == kTypePlain &&
                             method->subtype.load(std::memory_order_relaxed) == 0;
    if (unannounced && app.Server.isTenRecordDump.load(std::memory_order_relaxed) == 1)
        method->subtype.store(kSubtypeAnnounced, std::memory_order_relaxed);
    return method;
}

// A back-end that was found. Lock held.
mPP* reuseBackend(mPP* method, std::uint8_t subtype) {
    method->subtype.store(subtype, std::memory_order_relaxed);
    markMethodUsed(method);
    checkAndIncrementAggrBackendDataArray(method);
    return method;
}

// A back-end's record under its own name; under the key too where that differs (the name is "Others").
mPP* createBackend(vxApplication& app, methodHashMapNode_t* table, const char* name, const char* key,
                   std::uint8_t type, std::uint8_t subtype) {
    mPP* method = updateMethodHashMap(name, type, table->map, subtype);
    if (!method || type != kTypeHttp) return method;
    setSharedText(app.retired, method->aliasMethodName, name);
    if (std::strcmp(key, name) != 0) modify_hashmap(apr_pstrdup(table->map->pool, key), method, table->map);
    return method;
}

// A record beyond the ceiling is not made. Lock held.
bool isFull(vxApplication& app, const char* name) {
    const std::int32_t ceiling = VXProxy.ceilings.maxMethods;
    if (app.method.methodCount < static_cast<std::uint32_t>(ceiling < 0 ? 0 : ceiling)) return false;
    if (!app.method.ceilingTraced)
        VX_TRACE(1, kControlThread, kError, "maxMethods = %d methods are known, '%s' and others are ignored",
                 ceiling, name);
    app.method.ceilingTraced = 1;
    return true;
}

// Whatever the ceiling. Lock held.
mPP* makeRecord(vxApplication& app, const char* name, std::uint8_t type, std::uint8_t subtype) {
    void* block = VXLB_MALLOC_AND_MEMSET(sizeof(mPP), "methodPropProperties", -1);
    if (!block) return nullptr;
    auto* method = new (block) mPP{};
    const std::size_t size = strnlen(name, kNameMax) + 1;
    method->methodName = static_cast<char*>(VXLB_MALLOC(size, "method name", -1));
    if (!method->methodName) {
        VXLB_FREE(block, "methodPropProperties", -1);
        return nullptr;
    }
    vxlb_copy_text(method->methodName, size, name);
    std::uint32_t id = takeMethodId(app.method);
    if (type == kTypeCustom) id = takeMethodId(app.method);
    method->methodId.store(id, std::memory_order_relaxed);
    method->type.store(type, std::memory_order_relaxed);
    method->subtype.store(subtype, std::memory_order_relaxed);
    method->delivery = app.method.delivery;
    ++app.method.methodCount;
    return method;
}

// Finds or makes the record of a fixed name. Lock held.
mPP* fixedMethod(vxApplication& app, methodHashMapNode_t* table, const char* name) {
    if (mPP* known = search(name, table)) return known;
    mPP* method = makeRecord(app, name, kTypePlain, kSubtypeAnnounced);
    if (method) vxFileMethod(method, table->map);
    return method;
}

methodHashMapNode_t* makeTable(vxApplication& app) {
    void* block = VXLB_MALLOC_AND_MEMSET(sizeof(methodHashMapNode_t), "methodHashMapNode", -1);
    auto* table = block ? new (block) methodHashMapNode_t{} : nullptr;
    if (table) table->map = create_hashmap(app.pool);
    if (table && table->map) return table;
    VX_TRACE(1, kControlThread, kError, "Failed to malloced methodHashMapNode.");
    VXLB_FREE(table, "methodHashMapNode", -1);
    return nullptr;
}

// What "Others" stands for beyond the limit of named back-ends; null where the limit is not met.
const char* nameBeyondLimit(const vxApplication& app, int updateFlag) {
    const bool met = updateFlag == 1 && app.method.backendCounter >= vx_word_get(app.VXSys.maxIPCount);
    return met ? kOthersName : nullptr;
}

}  // namespace

void hashMapForAgent() {
    VXMethodLock lock;
    methodHashMapNode_t* table = vxMethodTable();
    if (!table) return;
    if (mPP* begin = vxFixBeginRequest(table)) markMethodUsed(begin);
    if (mPP* database = vxFixSqlDb(table)) {
        updateEntryMap(database, kSqlCallout, 0);
        markMethodUsed(database);
    }
    table->ready.store(1, std::memory_order_relaxed);
}

methodHashMapNode_t* vxMethodTable() {
    vxApplication& app = *vxCurrent();
    methodHashMapNode_t* table = currentTable(app);
    if (table) return table;
    table = makeTable(app);
    app.method.methodHashMapNode.store(table, std::memory_order_release);
    return table;
}

mPP* vxFixBeginRequest(methodHashMapNode_t* table) {
    vxApplication& app = *vxCurrent();
    mPP* begin = fixedMethod(app, table, kBeginRequestName);
    if (!begin) return nullptr;
    begin->isEntryPointPtr.fetch_or(kMethodEntryPoint, std::memory_order_relaxed);
    app.method.beginRequest.store(begin, std::memory_order_release);
    return begin;
}

mPP* vxFixSqlDb(methodHashMapNode_t* table) {
    vxApplication& app = *vxCurrent();
    mPP* database = fixedMethod(app, table, kSqlDbName);
    if (!database) return nullptr;
    checkAndIncrementAggrBackendDataArray(database);
    app.method.dbSqlDb.store(database, std::memory_order_release);
    return database;
}

mPP* getMethodPropFromMethodName(const char* name) {
    return name ? vxFindMethod(name, std::strlen(name)) : nullptr;
}

mPP* vxFindMethod(const char* name, std::size_t length) {
    const vxApplication& app = *vxCurrent();
    VXGuard lock(app.method.mapMutex);
    const methodHashMapNode_t* table = currentTable(app);
    return table ? searchReported(name, length, table) : nullptr;
}

mPP* vxSearchMethod(const methodHashMapNode_t* table, const char* name) {
    return search(name, table);
}

mPP* vxFindOrAddMethod(methodHashMapNode_t* table, const char* name, std::size_t length) {
    if (!table || !name || length == 0 || !*name) return nullptr;
    vxApplication& app = *vxCurrent();
    VXGuard lock(app.method.mapMutex);
    if (mPP* known = searchReported(name, length, table)) return reuseMethod(app, known);
    return updateMethodHashMap(name, kTypePlain, table->map, kSubtypeAnnounced);
}

mPP* vxNewMethod(const char* name, std::uint8_t type, std::uint8_t subtype) {
    vxApplication& app = *vxCurrent();
    return isFull(app, name) ? nullptr : makeRecord(app, name, type, subtype);
}

void vxFileMethod(mPP* method, VXMap* map) {
    VXMethodState_t& state = vxCurrent()->method;
    modify_hashmap(method->methodName, method, map);
    (state.lastMethod ? state.lastMethod->next : state.firstMethod) = method;
    state.lastMethod = method;
}

mPP* createAndDumpMethodHashMap(const char* name, std::uint8_t type, std::uint8_t subtype) {
    mPP* method = vxNewMethod(name, type, subtype);
    if (method && vxCurrent()->data.data_thread_running.load(std::memory_order_relaxed))
        announceMethod(method);
    return method;
}

mPP* updateMethodHashMap(const char* name, std::uint8_t type, VXMap* map, std::uint8_t subtype) {
    mPP* method = createAndDumpMethodHashMap(name, type, subtype);
    if (method) vxFileMethod(method, map);
    return method;
}

mPP* searchAndUpdateMethodHashMap(const char* name, methodHashMapNode_t* table, int updateFlag,
                                  std::uint8_t type, std::uint8_t subtype) {
    if (!table) return nullptr;
    vxApplication& app = *vxCurrent();
    char composed[kKeySize];
    const BackendKind* kind = findKind(type, subtype);
    const char* key = kind ? composeKey(*kind, name, composed) : name;
    if (!key || !*key) return nullptr;

    VXGuard lock(app.method.mapMutex);
    if (mPP* known = search(key, table)) return kind ? reuseBackend(known, subtype) : reuseMethod(app, known);
    const char* others = nameBeyondLimit(app, updateFlag);
    if (mPP* known = others ? search(others, table) : nullptr)
        return reuseBackend(known, known->subtype.load(std::memory_order_relaxed));
    mPP* method = createBackend(app, table, others ? others : key, key, type,
                                type == kTypePlain ? kSubtypeAnnounced : subtype);
    if (!method) return nullptr;
    if (kind) markMethodUsed(method);  // the replay has to name it, even if it is never asked for again
    if (updateFlag) ++app.method.backendCounter;
    if (updateFlag || kind) checkAndIncrementAggrBackendDataArray(method);
    return method;
}

void announceMethod(mPP* method) {
    if (method->usedFlag.exchange(kMethodUsed, std::memory_order_relaxed) == kMethodUsed) return;
    if (!vxCurrent()->data.data_thread_running.load(std::memory_order_relaxed)) return;
    if (!dumpMetataFor5Record(method->methodName, method->methodId.load(std::memory_order_relaxed)))
        method->usedFlag.store(kMethodUntold, std::memory_order_relaxed);
}

bool dumpMetataFor5Record(const char* name, std::uint32_t methodId) {
    char record[kRecordMax], end[16];
    VXWriter id(end, sizeof(end));
    id.put(',').number(methodId).endLine();
    VXWriter out(record, sizeof(record) - id.length());
    out.text("5,").recordText(name);
    std::memcpy(record + out.length(), end, id.length());
    return vxOfferRecord(record, static_cast<std::int64_t>(out.length() + id.length()));
}

void takeMethodTable(vxTD* slot) {
    vxApplication& app = *vxCurrent();
    VXMethodLock lock;
    methodHashMapNode_t* table = currentTable(app);
    if (!table || slot->methodTableHeld) return;
    slot->tlMethodTable = table;
    slot->methodTableHeld = 1;
    table->flowpathCount.fetch_add(1, std::memory_order_relaxed);
}

void releaseMethodTable(vxTD* slot) {
    if (!slot->methodTableHeld) return;
    slot->methodTableHeld = 0;
    if (slot->tlMethodTable) slot->tlMethodTable->flowpathCount.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace vx
