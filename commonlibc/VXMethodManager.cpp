#include "commonlibc/VXMethodManager.h"

#include <cstring>
#include <new>

#include "commonlibc/VXDataDispatcher.h"
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
constexpr std::size_t kKeySize = 1100;
constexpr std::uint32_t kUnassignedId = 0xFFFFFFFF;
constexpr std::uint8_t kSubtypeAnnounced = 1;
constexpr std::int32_t kPropUnclassified = 3;
constexpr const char* kOthersName = "Others";
constexpr const char* kSqlDbName = "DB_SQLDB";
constexpr const char* kSqlCallout = "SQL_CALLOUT";
enum ResetKind { kProfile = 1, kMonitor = 2, kEntryPoints = 3 };

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

struct CalloutRow {
    const char* text;
    std::uint16_t value;  // type in the low byte, subtype in the high one
    bool isBackend;
};
constexpr CalloutRow kCallouts[] = {
    {"CUSTOM_CALLOUT", 2054, true},  // by prefix, all others by the whole text
    {"HTTP_CALLOUT", 769, true},       {kSqlCallout, 2562, true},
    {"RABBITMQ_CALLOUT", 3341, true},  {"REDIS", 4098, true},
    {"MONGO_DB", 3842, true},          {"ORACLE", 7170, true},
    {"MYSQL_CALLOUT", 7426, true},     {"PG", 5122, true},
    {"MEMCACHED", 1282, true},         {"ODBC", 7938, true},
    {"CASSANDRA", 2306, true},         {"SQLITE", 8194, true},
    {"DB2_CALLOUT", 8450, true},       {"FIREBIRD", 8706, true},
    {"COUCHBASE_DB", 1538, true},      {"CUSTOM_LOG", 21331, false},
    {"EXCEPTION_CALLOUT", 1799, true}, {"HTTP_ENTRY", 8960, false},
    {"TX_EXIT", 1028, false},          {"ASYNC_CALL", 1284, false},
    {"CUSTOM_ENTRY", 1542, false},
};
constexpr std::uint16_t kCustomLogValue = 21331;

const BackendKind* findKind(std::uint8_t type, std::uint8_t subtype) {
    for (const BackendKind& kind : kBackendKinds)
        if (kind.type == type && (kind.subtype == kAnySubtype || kind.subtype == subtype)) return &kind;
    return nullptr;
}

const CalloutRow* findCallout(const char* text) {
    if (std::strncmp(text, kCallouts[0].text, std::strlen(kCallouts[0].text)) == 0) return &kCallouts[0];
    for (const CalloutRow& row : kCallouts)
        if (std::strcmp(text, row.text) == 0) return &row;
    return nullptr;
}

// The key of a back-end; null where its kind needs a name and has none.
const char* composeKey(const BackendKind& kind, const char* name, char (&key)[kKeySize]) {
    if (!name || !*name) return kind.defaultName;
    VXWriter(key, sizeof(key)).text(kind.prefix).put('_').text(name).terminate();
    return key;
}

mPP* search(const char* name, std::size_t length, const methodHashMapNode_t* table) {
    return static_cast<mPP*>(search_hashmap_len(name, static_cast<std::int64_t>(length), table->map));
}
mPP* search(const char* name, const methodHashMapNode_t* table) {
    return search(name, std::strlen(name), table);
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
    return method;
}

mPP* createBackend(vxApplication& app, methodHashMapNode_t* table, const char* name, const char* key,
                   std::uint8_t type, std::uint8_t subtype) {
    mPP* method = updateMethodHashMap(name, type, table->map, subtype);
    if (!method) return nullptr;
    if (type == kTypeCustom) takeMethodId(app.method);  // it has the id behind its own: nobody else may
    if (type != kTypeHttp) return method;
    method->aliasMethodName = vxlb_strdup(key);
    if (method->aliasMethodName && std::strcmp(key, name) != 0)
        modify_hashmap(method->aliasMethodName, method, table->map);
    return method;
}

// Finds or makes the record of a fixed name. Lock held.
mPP* fixedMethod(methodHashMapNode_t* table, const char* name) {
    mPP* method = search(name, table);
    return method ? method : updateMethodHashMap(name, kTypePlain, table->map, kSubtypeAnnounced);
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

void resetMethod(mPP& method, int kind) {
    const std::uint8_t type = method.type.load(std::memory_order_relaxed);
    if (kind == kProfile && type == kTypePlain) {
        method.usedFlag.store(0, std::memory_order_relaxed);
        if (method.isEntryPointPtr.load(std::memory_order_relaxed) == 0 && method.subtype.load() < 1)
            method.instrumentationProp = kPropUnclassified;
        method.subtype.store(0, std::memory_order_relaxed);
        method.instrumentationStatus = 0;
    } else if (kind == kMonitor && type == kTypeMonitored) {
        method.usedFlag.store(0, std::memory_order_relaxed);
        method.isEntryPointPtr.fetch_and(~kMethodMonitored, std::memory_order_relaxed);
    } else if (kind == kEntryPoints && type != kTypePlain && type != kTypeMonitored) {
        method.usedFlag.store(0, std::memory_order_relaxed);
        method.isEntryPointPtr.fetch_and(~kMethodBackend, std::memory_order_relaxed);
        method.subtype.store(0, std::memory_order_relaxed);
    }
}

}  // namespace

void hashMapForAgent() {
    vxApplication& app = *vxCurrent();
    VXMethodLock lock;
    methodHashMapNode_t* table = currentTable(app);
    if (!table) table = makeTable(app);
    if (!table) return;

    if (mPP* begin = fixedMethod(table, kBeginRequestName)) {
        begin->isEntryPointPtr.fetch_or(kMethodEntryPoint, std::memory_order_relaxed);
        markMethodUsed(begin);
        app.method.beginRequest.store(begin, std::memory_order_release);
    }
    if (mPP* database = fixedMethod(table, kSqlDbName)) {
        updateEntryMap(database, kSqlCallout, 0);
        markMethodUsed(database);
        checkAndIncrementAggrBackendDataArray(database);
        app.method.dbSqlDb.store(database, std::memory_order_release);
    }
    table->ready.store(1, std::memory_order_relaxed);
    app.method.methodHashMapNode.store(table, std::memory_order_release);
}

mPP* getMethodPropFromMethodName(const char* name) {
    return name ? vxFindMethod(name, std::strlen(name)) : nullptr;
}

mPP* vxFindMethod(const char* name, std::size_t length) {
    const vxApplication& app = *vxCurrent();
    VXGuard lock(app.method.mapMutex);
    const methodHashMapNode_t* table = currentTable(app);
    return table ? search(name, length, table) : nullptr;
}

mPP* vxFindOrAddMethod(methodHashMapNode_t* table, const char* name, std::size_t length) {
    if (!table || !name || length == 0) return nullptr;
    vxApplication& app = *vxCurrent();
    VXGuard lock(app.method.mapMutex);
    if (mPP* known = search(name, length, table)) return reuseMethod(app, known);
    return updateMethodHashMap(name, kTypePlain, table->map, kSubtypeAnnounced);
}

mPP* createAndDumpMethodHashMap(const char* name, std::uint8_t type, std::uint8_t subtype) {
    vxApplication& app = *vxCurrent();
    void* block = VXLB_MALLOC_AND_MEMSET(sizeof(mPP), "methodPropProperties", -1);
    if (!block) return nullptr;
    auto* method = new (block) mPP{};
    method->methodName = vxlb_strdup(name);
    if (!method->methodName) {
        VXLB_FREE(block, "methodPropProperties", -1);
        return nullptr;
    }
    std::uint32_t id = takeMethodId(app.method);
    if (type == kTypeCustom) id = app.method.methodIdCounter;
    method->methodId.store(id, std::memory_order_relaxed);
    method->type.store(type, std::memory_order_relaxed);
    method->subtype.store(subtype, std::memory_order_relaxed);
    if (app.data.data_thread_running.load(std::memory_order_relaxed)) announceMethod(method);
    return method;
}

mPP* updateMethodHashMap(const char* name, std::uint8_t type, VXMap* map, std::uint8_t subtype) {
    mPP* method = createAndDumpMethodHashMap(name, type, subtype);
    if (method) modify_hashmap(method->methodName, method, map);
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
    const char* newName = key;
    if (updateFlag == 1 && app.method.backendCounter >= vx_word_get(app.VXSys.maxIPCount)) {
        newName = kOthersName;
        if (mPP* others = search(newName, table)) {
            markMethodUsed(others);
            return others;
        }
    }
    mPP* method =
        createBackend(app, table, newName, key, type, type == kTypePlain ? kSubtypeAnnounced : subtype);
    if (!method) return nullptr;
    if (kind) markMethodUsed(method);  // the replay has to name it, even if it is never asked for again
    if (updateFlag) {
        ++app.method.backendCounter;
        checkAndIncrementAggrBackendDataArray(method);
    }
    return method;
}

void announceMethod(mPP* method) {
    if (method->usedFlag.exchange(1, std::memory_order_relaxed)) return;
    if (vxCurrent()->data.data_thread_running.load(std::memory_order_relaxed)) dumpMetataFor5Record(method);
}

void dumpMetataFor5Record(const mPP* method) {
    char record[kRecordMax];
    VXWriter out(record, sizeof(record));
    out.text("5,").recordText(method->methodName).put(',');
    out.number(method->methodId.load(std::memory_order_relaxed)).endLine();
    dumpData(record, static_cast<std::int64_t>(out.length()));
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

int updateEntryMap(mPP* method, const char* calloutText, int value) {
    const CalloutRow* row = method && calloutText ? findCallout(calloutText) : nullptr;
    if (!row) return 0;
    method->type.store(static_cast<std::uint8_t>(row->value & 0xFF), std::memory_order_relaxed);
    method->subtype.store(static_cast<std::uint8_t>(row->value >> 8), std::memory_order_relaxed);
    if (row->isBackend) method->isEntryPointPtr.fetch_or(kMethodBackend, std::memory_order_relaxed);
    if (row->value == kCustomLogValue) method->logLevel = value;
    return 0;
}

void resetmethodHashMapNode(methodHashMapNode_t* node, int kind) {
    if (!node) return;
    vxlb_map_each(
        node->map,
        [](const char*, void* value, void* ofKind) {
            resetMethod(*static_cast<mPP*>(value), *static_cast<int*>(ofKind));
            return true;
        },
        &kind);
}

}  // namespace vx
