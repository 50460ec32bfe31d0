// Digest of durations: any quantile of a stream of values, out of a few kilobytes.
//
// A digest keeps centroids: means of neighbouring values, with the number of values that each stands for.
// They are small at both ends of the distribution and large in its middle, so that high quantiles are close.
// New values wait in a buffer; when it is full it is sorted and merged with the centroids in one pass:
//
//     centroids  1 x 3   2 x 4.5   40 x 9.2   61 x 21.7   7 x 90.1   1 x 871      buffer  17 9 22 ...
//
// The method is the merging digest with the scale function k1 of T. Dunning and O. Ertl, "Computing Extremely
// Accurate Quantiles Using t-Digests" (arXiv:1902.04023).
//
// Units     Whole milliseconds. Values outside 0 to 2^31 - 1 count as the nearest of these.
// Limits    kDigestCentroids centroids. The rank of an answer is off by less than 1 % of the values in the
//           middle, by less than a thousandth beyond the 99th percentile.
// Lifetime  No memory of its own: a zeroed structure is not a digest until vxDigestClear().
// Threads   None of its own: whoever owns the structure.
#pragma once

#include <cstdint>

namespace vx {

inline constexpr int kDigestCompression = 100;
inline constexpr int kDigestCentroids =
    kDigestCompression + 1;  // two neighbours take more than 1 of 50 parts
inline constexpr int kDigestBuffer = 256;

struct VXCentroid {
    double mean;
    std::int64_t weight;  // values that it stands for
};

struct VXDigest {
    std::int64_t merged;  // values in the centroids
    std::int32_t centroidCount, buffered;
    std::int32_t min, max;                   // of all values, exact
    VXCentroid centroids[kDigestCentroids];  // by mean
    std::int32_t buffer[kDigestBuffer];
};

// Makes an empty digest.
void vxDigestClear(VXDigest& digest) noexcept;
void vxDigestAdd(VXDigest& digest, std::int64_t value) noexcept;
// Adds all that `from` stands for.
void vxDigestMerge(VXDigest& digest, VXDigest& from) noexcept;
// How many values it has taken.
std::int64_t vxDigestCount(const VXDigest& digest) noexcept;
// The value below which the part `q` (0 to 1) of all values lies; 0 for an empty digest.
double vxDigestQuantile(VXDigest& digest, double q) noexcept;

}  // namespace vx
