#include "commonlibc/vxlb_mem.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace vx {
namespace {

TEST(Memory, ARefusedGrowthLeavesTheBlock) {
    auto* block = static_cast<char*>(VXLB_REALLOC(nullptr, 8, "a buffer", -1));
    block[7] = 'x';
    EXPECT_EQ(VXLB_REALLOC(block, 0, "a buffer", 3), nullptr);
    EXPECT_EQ(VXLB_REALLOC(block, static_cast<std::size_t>(std::int64_t{-5}), "a buffer", 3), nullptr);
    EXPECT_EQ(block[7], 'x');
    VXLB_FREE(block, "a buffer", -1);
}

}  // namespace
}  // namespace vx
