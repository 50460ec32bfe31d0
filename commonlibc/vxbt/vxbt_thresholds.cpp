#include "commonlibc/vxbt/vxbt_thresholds.h"

#include <apr_pools.h>
#include <strings.h>

#include <cstring>
#include <utility>

#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr int kFields = 3, kMaxFields = 64;
constexpr const char* kForAll = "ALL";

struct Pair {
    std::int32_t slow, verySlow;
};

const Pair* pairOf(const VXMap* named, const BTObject& object) {
    return static_cast<const Pair*>(search_hashmap(object.btName, named));
}

void setPair(BTObject& object, const Pair& pair, std::uint32_t own) {
    object.slowThreshold.store(pair.slow, std::memory_order_relaxed);
    object.verySlowThreshold.store(pair.verySlow, std::memory_order_relaxed);
    object.ownThresholds.store(own, std::memory_order_relaxed);
}

// Key and pair are one block of the map's pool and end with it. False: no memory.
bool remember(VXMap* named, const char* name, const Pair& pair) {
    const std::size_t length = strnlen(name, kBtNameSize - 1);
    auto* block = static_cast<char*>(apr_palloc(named->pool, sizeof(Pair) + length + 1));
    if (!block) return false;
    std::memcpy(block, &pair, sizeof(Pair));
    char* key = block + sizeof(Pair);
    std::memcpy(key, name, length);
    key[length] = '\0';
    modify_hashmap(key, block, named);
    return true;
}

// What a text says.
struct Build {
    VXMap* named;
    Pair forAll;
    bool failed;
};

void takeLine(Build& build, char* text) {
    VXThresholdLine line;
    if (vxSplitThresholdLine(text, line)) return;
    const Pair pair{line.slow, line.verySlow};
    if (strcasecmp(line.name, kForAll) != 0) {
        if (!remember(build.named, line.name, pair)) build.failed = true;
        return;
    }
    VX_TRACE(1, kBtMon, kInfo, "Overwriting default values for all: slow '%d', very slow '%d'", pair.slow,
             pair.verySlow);
    build.forAll = pair;
}

// A declared BT under the new text, and the object that transactions reach under its name.
void settle(const Build& build, const VXBTState_t& bt, BTObject& declared) {
    auto* reached = static_cast<BTObject*>(search_hashmap(declared.btName, bt.managerMap));
    const Pair* own = pairOf(build.named, declared);
    for (BTObject* object : {&declared, reached}) {
        if (!object) continue;
        if (own) {
            setPair(*object, *own, 1);
        } else if (object->ownThresholds.load(std::memory_order_relaxed)) {
            setPair(*object, build.forAll, 0);
        }
    }
}

// The decode lock keeps out the start of a transaction, which gives its BT the pair for all.
VXMap* swapIn(const Build& build) {
    vxApplication& app = *vxCurrent();
    VXBTState_t& bt = app.bt;
    struct Walk {
        const Build& build;
        const VXBTState_t& bt;
    } walk{build, bt};
    const VXGuard decode(app.decoder.decodeMutex);
    const VXGuard map(bt.btMapMutex);
    bt.allSlowThreshold.store(build.forAll.slow, std::memory_order_relaxed);
    bt.allVerySlowThreshold.store(build.forAll.verySlow, std::memory_order_relaxed);
    vxlb_map_each(
        bt.configMap,
        [](const char*, void* object, void* argument) {
            const auto* at = static_cast<const Walk*>(argument);
            settle(at->build, at->bt, *static_cast<BTObject*>(object));
            return true;
        },
        &walk);
    return std::exchange(bt.thresholds, build.named);
}

}  // namespace

const char* vxSplitThresholdLine(char* line, VXThresholdLine& out) {
    char shown[kRuleLineSize];
    char* fields[kMaxFields];
    vxlb_copy_text(shown, sizeof(shown), line);
    const int count = vxlb_split_keep_empty(line, fields, "|", kMaxFields);
    if (count != kFields) {
        VX_TRACE(1, kBtMon, kWarning, "Invalid threshold line = '%s', num_fields = %d", shown, count);
        return "not 3 fields";
    }
    out = {fields[0], vxbt_int(fields[1]), vxbt_int(fields[2])};
    if (out.slow < 1 || out.verySlow < 1) {
        VX_TRACE(1, kBtMon, kWarning, "Invalid value(s): slow '%d', very slow '%d'", out.slow, out.verySlow);
        return "a value is below 1";
    }
    if (out.slow >= out.verySlow) {
        VX_TRACE(1, kBtMon, kWarning, "Invalid values: slow '%d' >= very slow '%d'", out.slow, out.verySlow);
        return "slow is not below very slow";
    }
    return nullptr;
}

int vxbt_read_threshold_file(const char* pathOrText, VXRuleSource source) {
    const VXBTState_t& bt = vxCurrent()->bt;
    if (!pathOrText || !*pathOrText) {
        VX_TRACE(1, kBtMon, kError, "File name is null or empty");
        return -1;
    }
    const VXRuleText text(pathOrText, source);
    Build build{create_hashmap(nullptr), {bt.allSlowThreshold.load(), bt.allVerySlowThreshold.load()}, false};
    VX_TRACE(2, kBtMon, kInfo, "Default values for allSlow = %d, allVerySlow = %d", build.forAll.slow,
             build.forAll.verySlow);
    if (!text.get() || !build.named) {
        destroy_hashmap(build.named);
        return 0;
    }
    eachRuleLine(text.get(), [&build](int, char* line) {
        if (*line && *line != '#') takeLine(build, line);
    });
    if (build.failed) VX_TRACE(1, kBtMon, kError, "No memory for the thresholds, those in force stay");
    destroy_hashmap(build.failed ? build.named : swapIn(build));
    return 0;
}

void applyOwnThresholds(const VXBTState_t& bt, BTObject& object) {
    if (const Pair* own = pairOf(bt.thresholds, object)) setPair(object, *own, 1);
}

}  // namespace vx
