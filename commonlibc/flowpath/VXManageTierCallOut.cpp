#include "commonlibc/flowpath/VXManageTierCallOut.h"

#include <apr_strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/vxlb_escape.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr int kFieldsNeeded = 4;
constexpr int kFieldsRead = 9;
constexpr std::size_t kKeySize = 4096;    // with terminator
constexpr std::size_t kFieldSize = 1024;  // with terminator
constexpr std::size_t kRecordSize = 8192;
constexpr const char* kNotAnnounced = "NA";
enum ChainField { kFlowpath, kTime, kSequence, kCallerId, kTier = 6, kInstance, kServer };

// The fields of a chain; those that it does not have are empty.
struct Chain {
    const char* field[kFieldsRead];
    int count;
};

// A field is known by its place, so an empty one counts.
Chain takeApart(char* text) {
    char* fields[kFieldsRead + 1];  // the last one takes what follows field 8
    Chain chain{};
    chain.count = vxlb_split_keep_empty(text, fields, "_", kFieldsRead + 1);
    for (int i = 0; i < kFieldsRead; ++i) chain.field[i] = i < chain.count ? fields[i] : "";
    return chain;
}

void setPreviousSequence(vxTD* slot, const char* text) {
    VXLB_FREE(slot->prevTierSeq, "SeqNo", -1);
    const std::size_t size = strnlen(text, kFieldSize - 1) + 1;
    slot->prevTierSeq = static_cast<char*>(VXLB_MALLOC(size, "SeqNo", -1));
    if (slot->prevTierSeq) vxlb_copy_text(slot->prevTierSeq, size, text);
}

// What tells one caller from another. The length.
std::size_t makeKey(const Chain& chain, char (&key)[kKeySize]) {
    VXWriter out(key, sizeof(key));
    for (const ChainField field : {kCallerId, kTier, kInstance, kServer}) out.text(chain.field[field]);
    return out.terminate().length();
}

// True, and traced once a run, when no further caller can be told apart.
bool isFull(VXTierState_t& tiers) {
    const std::int32_t ceiling = VXProxy.ceilings.maxCallers;
    if (tiers.callerCount < static_cast<std::uint32_t>(std::max(ceiling, 0))) return false;
    if (!tiers.callersTraced)
        VX_TRACE(1, kFlowpath, kError, "maxCallers = %d calling tiers are known, others are not announced",
                 ceiling);
    tiers.callersTraced = 1;
    return true;
}

// The keys live as long as the map, in its pool.
void rememberCaller(VXTierState_t& tiers, const char* key, std::size_t length) {
    const VXGuard guard(tiers.callers->mutex);
    char* kept = apr_pstrmemdup(tiers.callers->pool, key, length);
    if (!kept) return;
    modify_hashmap(kept, kept, tiers.callers);
    ++tiers.callerCount;
}

// False when the collector was to learn of a caller and there was no room for it.
bool announce(const Chain& chain) {
    if (std::strcmp(chain.field[kCallerId], kNotAnnounced) == 0) return true;
    char id[kFieldSize], tier[kFieldSize], instance[kFieldSize], server[kFieldSize];
    decodeUnderscore(id, sizeof(id), chain.field[kCallerId], 1);
    decodeUnderscore(tier, sizeof(tier), chain.field[kTier], 0);
    decodeUnderscore(instance, sizeof(instance), chain.field[kInstance], 0);
    decodeUnderscore(server, sizeof(server), chain.field[kServer], 0);
    return dumpRecord91({id, tier, instance, server});
}

// 0, or -1 without a map.
int meetCaller(vxApplication& app, const Chain& chain) {
    char key[kKeySize];
    const std::size_t length = makeKey(chain, key);
    if (length == 0) return 0;
    if (!app.tiers.callers) app.tiers.callers = create_hashmap(app.pool);
    if (!app.tiers.callers) {
        VX_TRACE(1, kFlowpath, kError, "Error in creating map for ATD...");
        return -1;
    }
    if (search_hashmap_len(key, static_cast<std::int64_t>(length), app.tiers.callers)) return 0;
    if (!isFull(app.tiers) && announce(chain)) rememberCaller(app.tiers, key, length);
    return 0;
}

}  // namespace

int setTierCallOut(vxTD* slot, char* chainText) {
    if (!chainText || std::count(chainText, chainText + std::strlen(chainText), '_') + 1 < kFieldsNeeded) {
        VX_TRACE(1, kFlowpath, kError, "Error in received string '%s'", chainText ? chainText : "(null)");
        return -1;
    }
    const Chain chain = takeApart(chainText);
    if (*chain.field[kFlowpath]) slot->prevFlowpath = std::strtoll(chain.field[kFlowpath], nullptr, 10);
    if (!*chain.field[kTime]) return -1;
    slot->prevTierTime = std::strtoll(chain.field[kTime], nullptr, 10);
    setPreviousSequence(slot, chain.field[kSequence]);
    return meetCaller(*vxCurrent(), chain);
}

bool dumpRecord91(const VXCaller& caller) {
    char record[kRecordSize];
    VXWriter out(record, sizeof(record));
    out.text("91");
    for (const char* text : {caller.id, caller.tier, getTierName(), caller.instance, caller.server,
                             getAppServerName(), getAppName()})
        out.put(',').recordText(text);
    out.text(",NA").endLine();
    return vxOfferRecord(record, static_cast<std::int64_t>(out.length()));
}

}  // namespace vx
