#include "commonlibc/vxlb_writer.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <set>
#include <string>

namespace vx {
namespace {

constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();

TEST(WriterNumbers, PrintAsPrintfDoes) {
    std::set<std::int64_t> values{kLowest, kHighest};
    std::int64_t bound = 1;
    for (int digits = 1; digits <= 18; ++digits, bound *= 10)
        for (const std::int64_t value : {bound - 1, bound, bound + 1, bound * 7 + 3})
            values.insert({value, -value});
    for (const std::int64_t value : values) {
        char expected[128], buffer[128];
        std::snprintf(expected, sizeof(expected), "%" PRId64 " %" PRIx64, value,
                      static_cast<std::uint64_t>(value));
        VXWriter out(buffer, sizeof(buffer));
        out.number(value).put(' ').hex(static_cast<std::uint64_t>(value)).terminate();
        EXPECT_STREQ(buffer, expected);
        if (std::abs(value / 2) > std::int64_t{1} << 49) continue;  // beyond what a double holds exactly
        std::snprintf(expected, sizeof(expected), "%.3lf", static_cast<double>(value) / 1000);
        VXWriter thousandths(buffer, sizeof(buffer));
        thousandths.thousandths(value).terminate();
        EXPECT_STREQ(buffer, expected);
    }
    char buffer[64];
    VXWriter out(buffer, sizeof(buffer));
    out.thousandths(kLowest).put(' ').thousandths(kHighest).terminate();
    EXPECT_STREQ(buffer, "-9223372036854775.808 9223372036854775.807");
    for (const double value : {0.0, -0.0, 0.5, 1.0 / 3, -2.4, 1e6, 123456.7890125, 9007199254740991.0,
                               9007199254740994.0, -9223372036854775808.0, 1.7e308, 1e-7}) {
        char expected[400], real[400];
        std::snprintf(expected, sizeof(expected), "%lf", value);
        VXWriter(real, sizeof(real)).real(value).terminate();
        EXPECT_STREQ(real, expected);
    }
}

TEST(WriterCuts, EndsAtEverySizeWithAWholeLineAndNothingBehind) {
    const std::string whole = "7,-12,a b,ff\n";
    for (std::size_t size = 0; size <= whole.size() + 1; ++size) {
        char buffer[32];
        std::memset(buffer, '#', sizeof(buffer));
        VXWriter out(buffer, size);
        out.text("7,").text(nullptr).number(-12).put(',').recordText("a\nb").put(',').hex(255).endLine();
        std::string expected = whole.substr(0, size);
        if (!expected.empty()) expected.back() = '\n';
        EXPECT_EQ(std::string(buffer, out.length()), expected) << size;
        EXPECT_EQ(out.cut(), size < whole.size()) << size;
        if (size > 0) {  // a terminator takes the last byte of a full buffer, and is gone over
            out.terminate().put('z').terminate();
            EXPECT_EQ(buffer, (expected + "z").substr(0, size - 1));
        }
        EXPECT_EQ(buffer[size], '#') << size;
    }
}

}  // namespace
}  // namespace vx
