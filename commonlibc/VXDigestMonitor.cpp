#include "commonlibc/VXDigestMonitor.h"

#include <charconv>
#include <cmath>
#include <cstring>

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/VXMonitorReport.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr std::int32_t kPeriodMinMs = 10000, kPeriodMaxMs = 86400000;
constexpr int kFields = 3;
constexpr std::size_t kValueSize = 128;
constexpr unsigned kSlotBits = 16;
constexpr double kPercentileMax = 100;

static_assert(kDigestOfBt.compression == kDigestCompression &&
              kDigestOfBackend.compression == kDigestCompression);
static_assert(kDigestOfBt.percentileSlots == 1 && kDigestOfBackend.percentileSlots == 1,
              "an instance begins with kPercentileDefault alone");

struct DigestOrder {
    std::int32_t type, periodMs;
    std::uint64_t percentiles;
};

DigestOrder orderOf(const VXDigestDefaults& defaults) {
    return {defaults.type, defaults.periodMs, kPercentileDefault};
}

// The whole of `text` as a number between `least` and `greatest`.
template <class T>
bool readNumber(const char* text, T least, T greatest, T& number) {
    const char* const end = text + std::strlen(text);
    const auto done = std::from_chars(text, end, number);
    return done.ec == std::errc() && done.ptr == end && number >= least && number <= greatest;
}

// Packs the percentiles of a list, the first into the lowest slot.
bool readPercentiles(char* list, double step, std::uint64_t& slots) {
    char* field[kDigestPercentiles + 1];
    const int count = vxlb_split_keep_empty(list, field, ",", kDigestPercentiles + 1);
    if (count > kDigestPercentiles) return false;
    slots = 0;
    for (int i = 0; i < count; ++i) {
        double percentile = 0;
        if (!readNumber(field[i], step, kPercentileMax, percentile)) return false;
        slots |= static_cast<std::uint64_t>(std::lround(percentile / step))
                 << (kSlotBits * static_cast<unsigned>(i));
    }
    return true;
}

bool readOrder(char* value, const VXDigestDefaults& defaults, DigestOrder& order) {
    char* field[kFields + 1];
    const int count = vxlb_split_keep_empty(value, field, "%20", kFields + 1);
    order = orderOf(defaults);
    if (count < 1 || count > kFields || !readNumber(field[0], 0, 1, order.type)) return false;
    if (count > 1 && !readNumber(field[1], kPeriodMinMs, kPeriodMaxMs, order.periodMs)) return false;
    return count < kFields || readPercentiles(field[2], defaults.percentileStep, order.percentiles);
}

void apply(const DigestOrder& order, VXDigestSettings& settings) {
    settings.percentiles.store(order.percentiles, relaxed);
    settings.periodMs.store(order.periodMs, relaxed);
    settings.type.store(order.type, relaxed);
}

template <class Slot>
void emptyDigests(VXAggregateArray<Slot>& array) {
    vxAggEach(array, 1, [](Slot& slot) {
        VXGuard guard(slot.mutex);
        if (slot.digest) vxDigestClear(*slot.digest);
        slot.digestUpdated = 0;
    });
}

template <class Slot>
void applyOrder(const char* value, const char* keyword, const VXDigestDefaults& defaults,
                VXDigestSettings& settings, VXAggregateArray<Slot>& array) {
    char text[kValueSize];
    DigestOrder order{};
    const bool whole = vxlb_copy_text(text, sizeof(text), value) == std::strlen(value);
    if (!whole || !readOrder(text, defaults, order)) {
        VX_TRACE(1, kControlThread, kWarning, "Value '%s' of keyword '%s' is refused", value, keyword);
        return;
    }
    // What was counted before a pause belongs to no period that a record could name.
    if (order.type && !settings.type.load(relaxed)) emptyDigests(array);
    apply(order, settings);
    VX_TRACE(1, kControlThread, kInfo, "%s: type = %d, period = %d ms", keyword, order.type, order.periodMs);
}

}  // namespace

void vxDigestDuration(const VXDigestSettings& settings, VXDigest*& digest, std::uint8_t& digestUpdated,
                      std::int64_t durationMs) {
    if (!settings.type.load(relaxed)) return;
    if (!digest) {
        digest = static_cast<VXDigest*>(VXLB_MALLOC(sizeof(VXDigest), "digest", -1));
        if (!digest) return;
        vxDigestClear(*digest);
    }
    vxDigestAdd(*digest, durationMs);
    digestUpdated = 1;
}

bool vxTakeDigest(VXDigest* digest, std::uint8_t& digestUpdated, VXDigest& taken) {
    if (!digest || !digestUpdated) return false;
    taken = *digest;
    vxDigestClear(*digest);
    digestUpdated = 0;
    return true;
}

void vxPutDigest(char* buffer, std::int32_t* length, int record, const char* prefixId, std::int64_t id,
                 const char* prefix, const char* name, VXDigest& digest, std::uint64_t percentiles) {
    const auto two = [](VXWriter& out, double value) {
        char digits[32];  // of a percentile or of 31 bits
        const auto done = std::to_chars(digits, digits + sizeof(digits), value, std::chars_format::fixed,
                                        kDigestOfBt.decimals);
        out.put(' ').bytes(digits, static_cast<std::size_t>(done.ptr - digits));
    };
    VXWriter out = vxBeginRecord(buffer, *length);
    vxPutHead(out, record, prefixId, id, prefix, name);
    out.number(vxDigestCount(digest)).put(' ').number(digest.min).put(' ').number(digest.max);
    for (std::uint64_t left = percentiles; left; left >>= kSlotBits) {
        const double percentile = static_cast<double>(left & 0xFFFF) * kDigestOfBt.percentileStep;
        two(out, percentile);
        two(out, vxDigestQuantile(digest, percentile / kPercentileMax));
    }
    vxEndRecord(out, buffer, length);
}

void ResetMonitorData() {
    vxApplication& app = *vxCurrent();
    emptyDigests(app.bt.aggDataArr);
    emptyDigests(app.method.backendArr);
}

void vxDigestInit() {
    VXDigestState_t& state = vxCurrent()->digest;
    apply(orderOf(kDigestOfBt), state.bt);
    apply(orderOf(kDigestOfBackend), state.backend);
}

void setDigestPercentileBT(const char* value) {
    vxApplication& app = *vxCurrent();
    applyOrder(value, "tDigestPercentileBT", kDigestOfBt, app.digest.bt, app.bt.aggDataArr);
}

void setDigestPercentileIP(const char* value) {
    vxApplication& app = *vxCurrent();
    applyOrder(value, "tDigestPercentileIP", kDigestOfBackend, app.digest.backend, app.method.backendArr);
}

}  // namespace vx
