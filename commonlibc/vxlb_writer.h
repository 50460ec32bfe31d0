// Bounded text: one writer over a caller's buffer, for records and blob items.
//
// The writer never passes the end of its buffer and remembers that it cut. The hot path formats without
// snprintf and without a heap block.
//
//     char line[64];
//     VXWriter out(line, sizeof(line));
//     out.text("7,").number(id).put(',').recordText(name).endLine();
//     dumpData(line, out.length());
//
// Limits    Nothing is written behind `size`; no terminator is written unless terminate() is called.
// Threads   Each writer belongs to the thread that made it.
#pragma once

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "commonlibc/vxlb_decimal.h"

namespace vx {

class VXWriter {
    static constexpr double kWholeLimit = 9007199254740992.0;  // 2^53: below it each whole number is exact
    static constexpr std::size_t kRealMax = 320;               // of the greatest double

public:
    VXWriter(char* buffer, std::size_t size) noexcept : begin_(buffer), at_(buffer), end_(buffer + size) {}

    VXWriter& put(char byte) noexcept {
        if (at_ < end_) {
            *at_++ = byte;
        } else {
            cut_ = true;
        }
        return *this;
    }
    VXWriter& bytes(const char* data, std::size_t length) noexcept {
        const std::size_t room = static_cast<std::size_t>(end_ - at_);
        if (length > room) {
            length = room;
            cut_ = true;
        }
        if (length) std::memcpy(at_, data, length);
        at_ += length;
        return *this;
    }
    // A null text writes nothing.
    VXWriter& text(const char* text) noexcept { return text ? bytes(text, std::strlen(text)) : *this; }
    // A text field of a record, cut at `max` bytes: bytes 10 and 13 are written as blanks.
    VXWriter& recordText(const char* text, std::size_t max = SIZE_MAX) noexcept {
        if (!text) return *this;
        char* from = at_;
        bytes(text, strnlen(text, max));
        for (; from < at_; ++from)
            if (*from == '\n' || *from == '\r') *from = ' ';
        return *this;
    }
    VXWriter& number(std::int64_t value) noexcept {
        if (static_cast<std::size_t>(end_ - at_) < kDecimalMax) return digits(value, 10);
        at_ = vxlb_put_decimal(at_, value);
        return *this;
    }
    VXWriter& hex(std::uint64_t value) noexcept { return digits(value, 16); }
    // `value` / 1000 with three decimals, as "%.3lf" of a number of thousandths prints it.
    VXWriter& thousandths(std::int64_t value) noexcept;
    // As "%lf" prints it.
    VXWriter& real(double value) noexcept;
    // Ends the record: appends a newline, or puts it over the last byte when the buffer is full.
    VXWriter& endLine() noexcept {
        takeBackWhenFull();
        return put('\n');
    }
    // Writes a terminator behind the text (over the last byte when full); length() stays without it.
    VXWriter& terminate() noexcept {
        takeBackWhenFull();
        if (at_ < end_) *at_ = '\0';
        return *this;
    }

    std::size_t length() const noexcept { return static_cast<std::size_t>(at_ - begin_); }
    // True once a byte was lost.
    bool cut() const noexcept { return cut_; }

private:
    void takeBackWhenFull() noexcept {
        if (at_ < end_ || at_ == begin_) return;
        --at_;
        cut_ = true;
    }
    template <class T>
    VXWriter& digits(T value, int base) noexcept {
        const auto done = std::to_chars(at_, end_, value, base);
        if (done.ec == std::errc()) {
            at_ = done.ptr;
            return *this;
        }
        char scratch[24] = {};  // it does not fit: as many digits as there is room for
        const char* const last = std::to_chars(scratch, scratch + sizeof(scratch), value, base).ptr;
        for (const char* digit = scratch; digit < last; ++digit) put(*digit);
        return *this;
    }

    char* begin_;
    char* at_;
    char* end_;
    bool cut_ = false;
};

inline VXWriter& VXWriter::thousandths(std::int64_t value) noexcept {
    std::uint64_t rest = static_cast<std::uint64_t>(value);
    if (value < 0) {
        put('-');
        rest = 0 - rest;
    }
    digits(rest / 1000, 10).put('.');
    const auto decimals = static_cast<unsigned>(rest % 1000);
    return put(static_cast<char>('0' + decimals / 100))
        .put(static_cast<char>('0' + decimals / 10 % 10))
        .put(static_cast<char>('0' + decimals % 10));
}

// Most figures of a record are whole numbers.
inline VXWriter& VXWriter::real(double value) noexcept {
    if (value > -kWholeLimit && value < kWholeLimit) {
        const auto whole = static_cast<std::int64_t>(value);
        if (static_cast<double>(whole) == value && !(whole == 0 && std::signbit(value)))
            return number(whole).bytes(".000000", 7);
    }
    char digits[kRealMax];
    const auto done = std::to_chars(digits, digits + sizeof(digits), value, std::chars_format::fixed, 6);
    return bytes(digits, static_cast<std::size_t>(done.ptr - digits));
}

}  // namespace vx
