// Shared plain words: the two helpers through which keyword members are read and written.
//
// Keyword members are plain integers, because the keyword table writes them by offset; several threads
// read them at the same time. Both helpers go through std::atomic_ref, so that the access is free of data
// races and costs what a plain access costs. All other shared words are std::atomic members.
//
// Threads   Any. Order is relaxed: a reader may see the former value for a moment.
#pragma once

#include <atomic>

namespace vx {

// The present value of a keyword member.
template <class T>
inline T vx_word_get(const T& word) noexcept {
    return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_relaxed);
}

// Replaces the value of a keyword member.
template <class T, class V>
inline void vx_word_set(T& word, V value) noexcept {
    std::atomic_ref<T>(word).store(static_cast<T>(value), std::memory_order_relaxed);
}

}  // namespace vx
