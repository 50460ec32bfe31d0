#include "tools/collector/store_sums.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <functional>

namespace vx::collector {

namespace {

constexpr std::int64_t kExact = 64;  // durations below have a bucket each
constexpr int kExactBits = 6, kPartBits = 5;

std::int64_t rounded(std::int64_t at, std::int64_t step) {
    return at - ((at % step) + step) % step;
}

std::size_t hashOf(Monitored kind, std::int64_t instance, std::int64_t at, std::string_view name) {
    std::size_t hash = std::hash<std::string_view>()(name);
    for (const auto part : {static_cast<std::int64_t>(kind), instance, at})
        hash = hash * 1099511628211U ^ std::hash<std::int64_t>()(part);
    return hash;
}

template <class Row>
void fillKey(Row& row, std::int64_t step, std::int64_t at) {
    row.step = step;
    row.at = rounded(at, step);
}

}  // namespace

int bucketOf(std::int64_t ms) {
    if (ms < kExact) return static_cast<int>(std::max<std::int64_t>(ms, 0));
    const int power = static_cast<int>(std::bit_width(static_cast<std::uint64_t>(ms))) - 1;
    const auto part = static_cast<int>(ms >> (power - kPartBits)) & ((1 << kPartBits) - 1);
    return static_cast<int>(kExact) + ((power - kExactBits) << kPartBits) + part;
}

double bucketMiddle(int bucket) {
    if (bucket < kExact) return bucket;
    const int above = bucket - static_cast<int>(kExact);
    const int shift = (above >> kPartBits) + kExactBits - kPartBits;
    const double least = std::ldexp((1 << kPartBits) + (above & ((1 << kPartBits) - 1)), shift);
    return least + (std::ldexp(1, shift) - 1) / 2;
}

double percentileOf(const std::vector<std::pair<int, std::uint64_t>>& counts, double percent) {
    std::uint64_t all = 0, passed = 0;
    for (const auto& [bucket, count] : counts) all += count;
    const auto wanted = static_cast<std::uint64_t>(std::ceil(static_cast<double>(all) * percent / 100));
    for (const auto& [bucket, count] : counts)
        if ((passed += count) >= wanted) return bucketMiddle(bucket);
    return 0;
}

std::size_t StoreSums::Hash::operator()(const Key& key) const {
    return hashOf(key.kind, key.instance, key.at, key.name);
}
std::size_t StoreSums::Hash::operator()(const Object& object) const {
    return hashOf(object.kind, object.instance, object.at, object.name);
}
bool StoreSums::Equal::operator()(const Key& left, const Key& right) const {
    return left.kind == right.kind && left.instance == right.instance && left.at == right.at &&
           left.name == right.name;
}
bool StoreSums::Equal::operator()(const Key& left, const Object& right) const {
    return left.kind == right.kind && left.instance == right.instance && left.at == right.at &&
           left.name == right.name;
}

StoreSums::Sum* StoreSums::of(Object object) {
    object.at = rounded(object.at, kSumStep);
    const auto found = sums_.find(object);
    if (found != sums_.end()) return &found->second;
    if (sums_.size() >= kMostSums || bytes_ >= kMostSumBytes) return nullptr;
    bytes_ += 2 * (sizeof(StoredSum) + object.name.size());
    return &sums_[{object.kind, object.instance, object.at, std::string(object.name)}];
}

bool StoreSums::add(const Object& object, const Figures& figures, std::int64_t us) {
    Sum* sum = of(object);
    if (!sum) return false;
    const bool inBuckets = object.kind == Monitored::kBt || object.kind == Monitored::kBackend;
    if (inBuckets && !addToBucket(*sum, bucketOf(figures.maxMs), object.name.size())) return false;
    sum->figures.add(figures);
    addUpTo(sum->totalUs, us);
    return true;
}

bool StoreSums::addToBucket(Sum& sum, int bucket, std::size_t nameLength) {
    const auto found = std::find_if(sum.buckets.begin(), sum.buckets.end(),
                                    [bucket](const auto& row) { return row.first == bucket; });
    if (found != sum.buckets.end()) {
        ++found->second;
        return true;
    }
    if (bytes_ >= kMostSumBytes) return false;
    sum.buckets.emplace_back(bucket, 1);
    bytes_ += 2 * (sizeof(StoredBucket) + nameLength);
    return true;
}

bool StoreSums::addDiscarded(const Object& object) {
    Sum* sum = of(object);
    if (sum) ++sum->discarded;
    return sum;
}

void StoreSums::take(Batch& batch) {
    for (const auto& [key, sum] : sums_)
        for (const std::int64_t step : {kSumStep, kLongSumStep}) {
            StoredSum& row = batch.sums.emplace_back();
            fillKey(row, step, key.at);
            row.kind = static_cast<std::int64_t>(key.kind);
            row.instance = key.instance;
            row.name = key.name;
            row.figures = sum.figures;
            row.discarded = sum.discarded;
            row.totalUs = sum.totalUs;
            for (const auto& [bucket, count] : sum.buckets) {
                StoredBucket& part = batch.buckets.emplace_back();
                fillKey(part, step, key.at);
                part.kind = row.kind;
                part.instance = key.instance;
                part.name = key.name;
                part.bucket = bucket;
                part.count = count;
            }
        }
    batch.bytes += std::exchange(bytes_, 0);
    sums_.clear();
}

}  // namespace vx::collector
