// What the records of the current intervals add up to, until it is handed to the writer.
//
// A sum handed out is only what has come since the one before: rows of one key add up in the store.
//
// Buckets   Durations below 64 ms have one each; above, each power of two is divided into 32:
//           0, 1, ... 63, 64-65, 66-67, ... 126-127, 128-131, ...
//           Business transactions and back-ends have them.
// Limits    kMostSums objects and about kMostSumBytes at a time. What needs more is not added, and add() says
//           so.
// Threads   One.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/collector/store_rows.h"

namespace vx::collector {

inline constexpr std::size_t kMostSums = 65536;
inline constexpr std::size_t kMostSumBytes = std::size_t{32} * 1024 * 1024;

int bucketOf(std::int64_t ms);
// The middle of a bucket's durations, in milliseconds.
double bucketMiddle(int bucket);
// The duration below which `percent` of the counted lie; `counts` by bucket, ascending. 0 without a count.
double percentileOf(const std::vector<std::pair<int, std::uint64_t>>& counts, double percent);

class StoreSums {
public:
    // An object of an instance, at a time. `name` is looked at during the call only.
    struct Object {
        Monitored kind = Monitored::kBt;
        std::int64_t instance = 0, at = 0;
        std::string_view name;
    };
    // One occurrence. False when there is no room.
    bool add(const Object& object, const Figures& figures, std::int64_t us);
    bool addDiscarded(const Object& object);
    // About what take() adds to a batch.
    std::size_t bytes() const { return bytes_; }
    // Moves all into the batch, as rows of both steps.
    void take(Batch& batch);

private:
    struct Key {
        Monitored kind;
        std::int64_t instance, at;  // `at` rounded down to kSumStep
        std::string name;
    };
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const Key& key) const;
        std::size_t operator()(const Object& object) const;
    };
    struct Equal {
        using is_transparent = void;
        bool operator()(const Key& left, const Key& right) const;
        bool operator()(const Key& left, const Object& right) const;
        bool operator()(const Object& left, const Key& right) const { return (*this)(right, left); }
    };
    struct Sum {
        Figures figures;
        std::int64_t discarded = 0, totalUs = 0;
        std::vector<std::pair<int, std::int64_t>> buckets;  // few: an interval's durations lie together
    };
    Sum* of(Object object);
    bool addToBucket(Sum& sum, int bucket, std::size_t nameLength);

    std::unordered_map<Key, Sum, Hash, Equal> sums_;
    std::size_t bytes_ = 0;
};

}  // namespace vx::collector
