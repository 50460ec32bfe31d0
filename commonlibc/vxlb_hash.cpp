#include "commonlibc/vxlb_hash.h"

#include <cstdint>
#include <cstring>
#include <mutex>

#include "commonlibc/vxlb_clock.h"

namespace vx {

namespace {

constexpr std::size_t kStep = 16;  // bytes folded at once

// Every operand of a product holds a seed: a word that makes one of them zero, and so hides what came before
// it, cannot be known outside.
struct Seeds {
    std::uint64_t state, step, last;
};
std::once_flag seedsDrawn;
Seeds seeds;

template <class T>
std::uint64_t wordAt(const char* at) {
    T word;
    std::memcpy(&word, at, sizeof(word));  // one load, at any alignment
    return word;
}

// Both halves of the product, one over the other.
std::uint64_t fold(std::uint64_t a, std::uint64_t b) {
    const auto product = static_cast<unsigned __int128>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

}  // namespace

void vxlb_hash_init() {
    std::call_once(seedsDrawn, [] {
        for (std::uint64_t* seed : {&seeds.state, &seeds.step, &seeds.last})
            for (std::size_t i = 0; i < sizeof(*seed); ++i) *seed = *seed << 8 | vxlb_random_byte();
    });
}

unsigned int vxlb_hash(const char* key, apr_ssize_t* length) {
    if (*length == APR_HASH_KEY_STRING) *length = static_cast<apr_ssize_t>(std::strlen(key));
    const auto size = static_cast<std::size_t>(*length);
    std::uint64_t state = seeds.state ^ size;
    std::size_t left = size;
    for (; left > kStep; left -= kStep, key += kStep)
        state = fold(wordAt<std::uint64_t>(key) ^ seeds.step, wordAt<std::uint64_t>(key + 8) ^ state);

    // The last 1 to 16 bytes as two words, which overlap where they are fewer.
    std::uint64_t a = 0, b = 0;
    if (left >= 8) {
        a = wordAt<std::uint64_t>(key);
        b = wordAt<std::uint64_t>(key + left - 8);
    } else if (left >= 4) {
        a = wordAt<std::uint32_t>(key);
        b = wordAt<std::uint32_t>(key + left - 4);
    } else if (left > 0) {
        a = wordAt<std::uint8_t>(key);
        b = wordAt<std::uint8_t>(key + left / 2) << 8 | wordAt<std::uint8_t>(key + left - 1);
    }
    state = fold(a ^ seeds.last, b ^ state);
    return static_cast<unsigned int>(state ^ state >> 32);
}

}  // namespace vx
