#include "commonlibc/vxlb_wrap_header.h"

#include <gtest/gtest.h>

#include <string>

namespace vx::test {
namespace {

using namespace std::string_literals;

std::string encoded(const VXWrapHeader& header, const std::string& payload) {
    char out[128];
    const std::int64_t length = vxWrapEncode(out, sizeof(out), header, {payload.data(), payload.size()});
    return length < 0 ? "(does not fit)" : std::string(out, static_cast<std::size_t>(length));
}

TEST(WrapHeader, CarriesItsStringsUntilTheIndexIsKnown) {
    VXWrapHeader header{
        VXWrapType::kSettings, 4, 0x0102, kWrapIndexUnknown, 0, {"r1", 2}, {}, {"fn", 2}, {"a=b", 3}};
    EXPECT_EQ(encoded(header, ""),
              "^\x30\0\0\0\2\0\0\0\0\0\0\0\2\0\0\0\3\0\0\0\4\0\x8\0"
              "\2\1\0\0\0\0\0\0\xff\xff\xff\xff\0\0\0\0r1fna=b\n"s);
    EXPECT_EQ(encoded(header, std::string(128 - 48, 'x')), "(does not fit)");
    // A known index: no strings, and padding that makes the datagram long enough.
    header.contextIndex = 7;
    const std::string known =
        "\0\0\0"s + std::string(16, '\0') + "\4\0\x8\0\2\1\0\0\0\0\0\0\7\0\0\0\0\0\0\0"s;
    EXPECT_EQ(encoded(header, ""), "^\x2c"s + known + std::string(3, '\0') + "\n");
    EXPECT_EQ(encoded(header, "^ record\n"), "^\x29"s + known + "^ record\n");
}

}  // namespace
}  // namespace vx::test
