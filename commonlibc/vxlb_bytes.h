// Byte views: readers over bytes from outside, little-endian and unaligned.
//
// A view borrows its bytes. Every reader checks the place against the size before it reads, and answers 0
// (an empty view) where the bytes are not all there: no input can make it read outside.
//
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace vx {

class VXByteView {
public:
    VXByteView() = default;
    VXByteView(const char* data, std::size_t size) noexcept : data_(data), size_(size) {}

    const char* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }

    std::uint8_t u8At(std::size_t offset) const noexcept {
        return holds(offset, 1) ? static_cast<std::uint8_t>(data_[offset]) : std::uint8_t{0};
    }
    std::int32_t i32At(std::size_t offset) const noexcept {
        return holds(offset, 4) ? static_cast<std::int32_t>(read<std::uint32_t>(offset)) : 0;
    }
    std::int64_t i64At(std::size_t offset) const noexcept {
        return holds(offset, 8) ? static_cast<std::int64_t>(read<std::uint64_t>(offset)) : 0;
    }
    // Takes `count` bytes off the front; all that are left when there are fewer.
    VXByteView take(std::size_t count) noexcept {
        if (count > size_) count = size_;
        const VXByteView front(data_, count);
        data_ += count;
        size_ -= count;
        return front;
    }

private:
    bool holds(std::size_t offset, std::size_t width) const noexcept {
        return offset <= size_ && size_ - offset >= width;
    }
    // Written out instead of looped over: compilers make one load of it.
    template <class T, std::size_t... I>
    T join(const char* at, std::index_sequence<I...>) const noexcept {
        return static_cast<T>(((T{static_cast<std::uint8_t>(at[I])} << (8 * I)) | ...));
    }
    template <class T>
    T read(std::size_t offset) const noexcept {
        return join<T>(data_ + offset, std::make_index_sequence<sizeof(T)>());
    }

    const char* data_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace vx
