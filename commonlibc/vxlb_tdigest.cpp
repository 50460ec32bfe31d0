#include "commonlibc/vxlb_tdigest.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vx {

namespace {

// One unit of the scale k1(q) = compression / 2 pi * asin(2 q - 1), as an angle; its cosine and sine.
constexpr double kUnit = 2 * 3.14159265358979323846 / kDigestCompression;
const double kCosUnit = std::cos(kUnit), kSinUnit = std::sin(kUnit);

// How far a centroid that begins at `q` may reach: k1 of it is one more than k1(q). The sine of a sum takes
// the place of the arc sine.
double reachFrom(double q) noexcept {
    const double sine = 2 * q - 1;
    if (sine >= kCosUnit) return 1;
    return (sine * kCosUnit + std::sqrt(std::max(0.0, 1 - sine * sine)) * kSinUnit + 1) / 2;
}

// Makes centroids anew out of parts that come by mean.
class Compressor {
public:
    Compressor(VXCentroid* centroids, std::int64_t total) noexcept
        : centroids_(centroids), total_(static_cast<double>(total)), limit_(total_ * reachFrom(0)) {}

    void take(const VXCentroid& part) noexcept {
        if (count_ == 0) {
            centroids_[count_++] = part;
            return;
        }
        VXCentroid& last = centroids_[count_ - 1];
        const auto together = static_cast<double>(before_ + last.weight + part.weight);
        if (together <= limit_ || count_ == kDigestCentroids) {
            last.weight += part.weight;
            last.mean +=
                (part.mean - last.mean) * static_cast<double>(part.weight) / static_cast<double>(last.weight);
            return;
        }
        before_ += last.weight;
        limit_ = total_ * reachFrom(static_cast<double>(before_) / total_);
        centroids_[count_++] = part;
    }
    int count() const noexcept { return count_; }

private:
    VXCentroid* centroids_;
    int count_ = 0;
    std::int64_t before_ = 0;  // values in front of the last centroid
    double total_, limit_;
};

// Merges parts that are in order and stand for `weight` values.
void absorb(VXDigest& digest, const VXCentroid* parts, int partCount, std::int64_t weight) noexcept {
    VXCentroid former[kDigestCentroids];
    const int formerCount = digest.centroidCount;
    std::copy_n(digest.centroids, formerCount, former);

    digest.merged += weight;
    Compressor made(digest.centroids, digest.merged);
    for (int i = 0, j = 0; i < formerCount || j < partCount;) {
        const bool ofFormer = j == partCount || (i < formerCount && former[i].mean <= parts[j].mean);
        made.take(ofFormer ? former[i++] : parts[j++]);
    }
    digest.centroidCount = made.count();
}

// Orders the buffer byte by byte, as many bytes as its greatest value has: the branches of a sort by
// comparison cost five times as much.
void orderBuffer(std::int32_t* values, int count) noexcept {
    std::int32_t scratch[kDigestBuffer];
    const std::int32_t greatest = *std::max_element(values, values + count);
    for (int shift = 0; shift < 32 && greatest >> shift > 0; shift += 8) {
        std::int32_t place[257] = {};  // where the values of each byte begin
        const auto byteOf = [shift](std::int32_t value) { return value >> shift & 0xFF; };
        for (int i = 0; i < count; ++i) ++place[byteOf(values[i]) + 1];
        for (int byte = 1; byte < 256; ++byte) place[byte] += place[byte - 1];
        for (int i = 0; i < count; ++i) scratch[place[byteOf(values[i])]++] = values[i];
        std::copy_n(scratch, count, values);
    }
}

void mergeBuffer(VXDigest& digest) noexcept {
    const int count = digest.buffered;
    if (count == 0) return;
    orderBuffer(digest.buffer, count);
    VXCentroid parts[kDigestBuffer];
    for (int i = 0; i < count; ++i) parts[i] = {static_cast<double>(digest.buffer[i]), 1};
    digest.buffered = 0;
    absorb(digest, parts, count, count);
}

}  // namespace

void vxDigestClear(VXDigest& digest) noexcept {
    digest.merged = 0;
    digest.centroidCount = digest.buffered = 0;
    digest.min = std::numeric_limits<std::int32_t>::max();
    digest.max = 0;
}

void vxDigestAdd(VXDigest& digest, std::int64_t value) noexcept {
    if (digest.buffered == kDigestBuffer) mergeBuffer(digest);
    const auto held = static_cast<std::int32_t>(
        std::clamp<std::int64_t>(value, 0, std::numeric_limits<std::int32_t>::max()));
    digest.buffer[digest.buffered++] = held;
    digest.min = std::min(digest.min, held);
    digest.max = std::max(digest.max, held);
}

void vxDigestMerge(VXDigest& digest, VXDigest& from) noexcept {
    mergeBuffer(digest);
    mergeBuffer(from);
    absorb(digest, from.centroids, from.centroidCount, from.merged);
    digest.min = std::min(digest.min, from.min);
    digest.max = std::max(digest.max, from.max);
}

std::int64_t vxDigestCount(const VXDigest& digest) noexcept {
    return digest.merged + digest.buffered;
}

// A centroid's mean stands at the middle of its values; between two middles the value rises in a line.
double vxDigestQuantile(VXDigest& digest, double q) noexcept {
    mergeBuffer(digest);
    if (digest.merged == 0) return 0;
    const auto total = static_cast<double>(digest.merged);
    const double wanted = std::clamp(q, 0.0, 1.0) * total;

    double at = 0, value = digest.min, before = 0;
    const auto lineTo = [&](double nextAt, double nextValue) {
        return value + (nextValue - value) * (wanted - at) / (nextAt - at);
    };
    for (int i = 0; i < digest.centroidCount; ++i) {
        const auto weight = static_cast<double>(digest.centroids[i].weight);
        const double middle = before + weight / 2;
        if (wanted < middle) return lineTo(middle, digest.centroids[i].mean);
        at = middle;
        value = digest.centroids[i].mean;
        before += weight;
    }
    return lineTo(total, digest.max);
}

}  // namespace vx
