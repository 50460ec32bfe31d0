// vxbench: what a record costs on its way from the read buffer to the buffer chain.
//
// Replays a stream of complete transactions through decodeMessage, in reads of the listener's size, and the
// same bytes through a loop that only frames them. Figures are those after one round of warming up.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "bench/bench_allocations.h"
#include "bench/bench_frames.h"
#include "bench/bench_instance.h"
#include "bench/bench_stream.h"
#include "commonlibc/vxlb_decode.h"

namespace vx::bench {
namespace {

constexpr unsigned kSeed = 20140101;
constexpr int kTransactions = 4000;

struct Options {
    std::int64_t records = 5000000;
    bool decode = true, frames = true;
};

struct Figures {
    std::int64_t records = 0, bytesOut = 0, allocations = 0;
    double wallSeconds = 0, cpuSeconds = 0;
};

double seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Hands `stream` to `take(buffer, length)` as reads do: behind what the last one left, which `take` answers.
template <class Take>
void read(const std::string& stream, std::vector<char>& buffer, Take&& take) {
    std::size_t carried = 0;
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t count = std::min(kReadSize - carried, stream.size() - at);
        std::memcpy(buffer.data() + carried, stream.data() + at, count);
        at += count;
        carried = take(buffer, carried + count);
    }
}

// What decodeMessage did not finish stands in the carry-over; the listener puts it in front of the next read.
std::size_t decodeRead(vxApplication& app, std::vector<char>& buffer, std::size_t length, Figures& figures) {
    decodeMessage(buffer.data(), static_cast<std::int32_t>(length), 0, 0, nullptr);
    figures.bytesOut += drain(app);
    const auto left = static_cast<std::size_t>(app.decoder.partialLength);
    std::memcpy(buffer.data(), app.decoder.partialBuffer, left);
    app.decoder.partialLength = 0;
    return left;
}

template <class Round>
Figures measure(const Stream& stream, std::int64_t records, Round&& round) {
    Figures figures;
    round(figures);
    figures = Figures{};
    const std::int64_t allocationsBefore = allocations();
    const double wallBefore = seconds(CLOCK_MONOTONIC), cpuBefore = seconds(CLOCK_THREAD_CPUTIME_ID);
    for (std::int64_t done = 0; done < records; done += stream.records) {
        round(figures);
        figures.records += stream.records;
    }
    figures.cpuSeconds = seconds(CLOCK_THREAD_CPUTIME_ID) - cpuBefore;
    figures.wallSeconds = seconds(CLOCK_MONOTONIC) - wallBefore;
    figures.allocations = allocations() - allocationsBefore;
    return figures;
}

void print(const char* name, const Figures& figures) {
    const auto records = static_cast<double>(figures.records);
    std::printf(
        "%-7s records=%lld records_per_second=%.0f ns_per_record=%.1f cpu_ns_per_record=%.1f "
        "allocations_per_record=%.6f bytes_out_per_record=%.1f\n",
        name, static_cast<long long>(figures.records), records / figures.wallSeconds,
        figures.wallSeconds * 1e9 / records, figures.cpuSeconds * 1e9 / records,
        static_cast<double>(figures.allocations) / records, static_cast<double>(figures.bytesOut) / records);
}

void measureDecoding(const Stream& stream, std::int64_t records) {
    vxApplication& app = *openInstance();
    std::vector<char> buffer(kReadSize + 1);
    const Figures figures = measure(stream, records, [&](Figures& sums) {
        read(stream.bytes, buffer, [&](std::vector<char>& bytes, std::size_t length) {
            return decodeRead(app, bytes, length, sums);
        });
    });
    print("decode", figures);
    if (app.VXSys.dataDropCount.load() || app.flowpath.gBusyTLSCnt)
        std::printf("decode  dropped=%u open=%d\n", app.VXSys.dataDropCount.load(), app.flowpath.gBusyTLSCnt);
}

void measureFraming(const Stream& stream, std::int64_t records) {
    std::vector<char> buffer(kReadSize + 1);
    std::int64_t framed = 0;
    const Figures figures = measure(stream, records, [&](Figures&) {
        read(stream.bytes, buffer,
             [&](std::vector<char>& bytes, std::size_t length) { return frameRead(bytes, length, framed); });
    });
    print("frames", figures);
    if (framed != figures.records + stream.records)
        std::printf("frames  framed=%lld\n", static_cast<long long>(framed));
}

int usage(int code) {
    std::fputs(
        "usage: vxbench [--records N] [--only decode|frames]\n"
        "  --records N   records to measure, rounded up to whole rounds of 168,000 (default 5,000,000)\n"
        "  --only WHAT   leaves the other of the two measurements out\n",
        code ? stderr : stdout);
    return code;
}

bool readOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; i += 2) {
        const char* value = i + 1 < argc ? argv[i + 1] : "";
        if (std::strcmp(argv[i], "--records") == 0) {
            options.records = std::strtoll(value, nullptr, 10);
            if (options.records < 1) return false;
        } else if (std::strcmp(argv[i], "--only") == 0) {
            options.decode = std::strcmp(value, "decode") == 0;
            options.frames = std::strcmp(value, "frames") == 0;
            if (!options.decode && !options.frames) return false;
        } else {
            return false;
        }
    }
    return true;
}

int run(int argc, char** argv) {
    Options options;
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) return usage(0);
    if (!readOptions(argc, argv, options)) return usage(2);
    const Stream stream = makeStream(kTransactions, kSeed);
    std::printf("stream  seed=%u transactions=%d records=%lld bytes=%zu\n", kSeed, kTransactions,
                static_cast<long long>(stream.records), stream.bytes.size());
    if (options.frames) measureFraming(stream, options.records);
    if (options.decode) measureDecoding(stream, options.records);
    return 0;
}

}  // namespace
}  // namespace vx::bench

int main(int argc, char** argv) {
    return vx::bench::run(argc, argv);
}
