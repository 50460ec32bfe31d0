#include "commonlibc/VXMethodClasses.h"

#include <cstring>

#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"

namespace vx {

namespace {

constexpr int kPortion = 256;  // records per turn of the lock
constexpr std::int64_t kPauseUs = 50;
constexpr std::uint32_t kNoDelivery = 0xFFFFFFFF;
constexpr auto relaxed = std::memory_order_relaxed;

struct CalloutRow {
    const char* text;
    std::uint16_t value;  // type in the low byte, subtype in the high one
    std::uint32_t flags;  // set in the flag word
};
constexpr std::uint32_t kCustom = kMethodBackend | kMethodCustomBackend;
constexpr CalloutRow kCallouts[] = {
    {"CUSTOM_CALLOUT", 2054, kCustom},  // by prefix, all others by the whole text
    {"HTTP_CALLOUT", 769, kMethodBackend},
    {kSqlCallout, 2562, kMethodBackend},
    {"RABBITMQ_CALLOUT", 3341, kMethodBackend},
    {"REDIS", 4098, kMethodBackend},
    {"MONGO_DB", 3842, kMethodBackend},
    {"ORACLE", 7170, kMethodBackend},
    {"MYSQL_CALLOUT", 7426, kMethodBackend},
    {"PG", 5122, kMethodBackend},
    {"MEMCACHED", 1282, kMethodBackend},
    {"ODBC", 7938, kMethodBackend},
    {"CASSANDRA", 2306, kMethodBackend},
    {"SQLITE", 8194, kMethodBackend},
    {"DB2_CALLOUT", 8450, kMethodBackend},
    {"FIREBIRD", 8706, kMethodBackend},
    {"COUCHBASE_DB", 1538, kMethodBackend},
    {"CUSTOM_LOG", 21331, 0},
    {"EXCEPTION_CALLOUT", 1799, kMethodBackend},
    {"HTTP_ENTRY", 8960, 0},
    {"TX_EXIT", 1028, 0},
    {"ASYNC_CALL", 1284, 0},
    {"CUSTOM_ENTRY", 1542, 0},
};
constexpr std::uint16_t kCustomLogValue = 21331;

const CalloutRow* findCallout(const char* text) {
    if (std::strncmp(text, kCallouts[0].text, std::strlen(kCallouts[0].text)) == 0) return &kCallouts[0];
    for (const CalloutRow& row : kCallouts)
        if (std::strcmp(text, row.text) == 0) return &row;
    return nullptr;
}

VXMethodClass classOf(const mPP& method) {
    return {method.isEntryPointPtr.load(relaxed), method.type.load(relaxed), method.subtype.load(relaxed),
            method.logLevel};
}

// What a reset of that kind leaves of a class; the record's other members are reset in place.
VXMethodClass resetClass(mPP& method, int kind) {
    VXMethodClass now = classOf(method);
    if (kind == kTextProfile && now.type == kTypePlain) {
        if (now.flags == 0 && now.subtype < 1) method.instrumentationProp = kPropUnclassified;
        method.instrumentationStatus = 0;
        now.subtype = 0;
    } else if (kind == kTextMonitor && now.type == kTypeMonitored) {
        now.flags &= ~kMethodMonitored;
    } else if (kind == kTextEntryPoints && now.type != kTypePlain && now.type != kTypeMonitored) {
        now.flags &= ~kCustom;
        now.subtype = 0;
    } else {
        return now;
    }
    method.usedFlag.store(0, relaxed);
    return now;
}

// Resets every record whose last delivery is not `except`.
void resetAllBut(int kind, std::uint32_t except) {
    VXMethodState_t& state = vxCurrent()->method;
    const mPP* last = nullptr;  // records are never freed: the place is good while the lock is released
    for (bool more = true; more;) {
        {
            VXGuard lock(state.mapMutex);
            mPP* at = last ? last->next : state.firstMethod;
            for (int count = 0; at && count < kPortion; ++count, at = at->next) {
                if (at->delivery != except) vxPutClass(*at, resetClass(*at, kind));
                last = at;
            }
            more = at != nullptr;
        }
        if (more) vxlb_sleep_us(kPauseUs);  // lets in who waits for the lock
    }
}

}  // namespace

bool vxClassify(VXMethodClass& methodClass, const char* calloutText, int value) {
    const CalloutRow* row = calloutText ? findCallout(calloutText) : nullptr;
    if (!row) return false;
    methodClass.type = static_cast<std::uint8_t>(row->value & 0xFF);
    methodClass.subtype = static_cast<std::uint8_t>(row->value >> 8);
    methodClass.flags |= row->flags;
    if (row->value == kCustomLogValue) methodClass.logLevel = value;
    return true;
}

int updateEntryMap(mPP* method, const char* calloutText, int value) {
    if (!method) return 0;
    VXMethodClass methodClass = classOf(*method);
    if (vxClassify(methodClass, calloutText, value)) vxPutClass(*method, methodClass);
    return 0;
}

VXMethodDelivery makeHashmapCopyAndaddToLL(int kind) {
    vxApplication& app = *vxCurrent();
    VXGuard lock(app.method.mapMutex);
    if (methodHashMapNode_t* node = app.method.methodHashMapNode.load(std::memory_order_acquire))
        node->lastSwapTimeMs = vxlb_now_ms();
    const bool told = app.Server.runtimeChange.load(relaxed) && app.Server.fileUpdatedAtRuntime;
    return {kind, ++app.method.delivery, !told};
}

VXMethodClass vxTakeClass(mPP& method, const VXMethodDelivery& delivery) {
    if (method.delivery == delivery.number || !delivery.resets) return classOf(method);
    method.delivery = delivery.number;
    return resetClass(method, delivery.kind);
}

void vxPutClass(mPP& method, const VXMethodClass& methodClass) {
    method.type.store(methodClass.type, relaxed);
    method.subtype.store(methodClass.subtype, relaxed);
    method.isEntryPointPtr.store(methodClass.flags, relaxed);
    method.logLevel = methodClass.logLevel;
}

void vxEndDelivery(const VXMethodDelivery& delivery) {
    if (delivery.resets) resetAllBut(delivery.kind, delivery.number);
}

void resetmethodHashMapNode(methodHashMapNode_t* node, int kind) {
    if (node) resetAllBut(kind, kNoDelivery);
}

}  // namespace vx
