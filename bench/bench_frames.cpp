#include "bench/bench_frames.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "commonlibc/vxlb_bytes.h"

namespace vx::bench {

namespace {
constexpr std::size_t kTotalLengthAt = 5;
}  // namespace

std::size_t frameRead(std::vector<char>& buffer, std::size_t length, std::int64_t& records) {
    VXByteView bytes(buffer.data(), length);
    while (bytes.size() && bytes.u8At(0) == '\n') bytes.take(1);
    while (bytes.size() && bytes.u8At(0) == '^') {
        const auto total = static_cast<std::size_t>(bytes.i32At(kTotalLengthAt));
        if (total == 0 || total > bytes.size() || bytes.u8At(total - 1) != '\n') break;
        bytes.take(total);
        ++records;
    }
    std::memmove(buffer.data(), bytes.data(), bytes.size());
    return bytes.size();
}

std::int64_t readAndFrame(int descriptor) {
    std::vector<char> buffer(kReadSize);
    std::int64_t records = 0;
    std::size_t held = 0;
    for (;;) {
        const ssize_t count = recv(descriptor, buffer.data() + held, buffer.size() - held, 0);
        if (count <= 0) return records;
        held = frameRead(buffer, held + static_cast<std::size_t>(count), records);
    }
}

}  // namespace vx::bench
