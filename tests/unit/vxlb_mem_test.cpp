#include "commonlibc/vxlb_mem.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>

#include "tests/support/app_fixture.h"
#include "tests/support/trace_file.h"

namespace vx {
namespace {

class Memory : public test::AppFixture {};

TEST_F(Memory, EveryUseLeavesALineUnderMemory) {
    test::TraceFile trace(*app);
    vx_word_set(app->VXSys.memoryTraceLevel, 1);
    void* block = VXLB_MALLOC_AND_MEMSET(24, "a table", 7);
    char pointer[32];
    std::snprintf(pointer, sizeof(pointer), "$%p$", block);
    EXPECT_EQ(*static_cast<std::uint64_t*>(block), 0u);
    VXLB_FREE(block, "a table", 7);
    VXLB_FREE(nullptr, "nothing", 8);

    const std::string at(pointer);
    EXPECT_TRUE(trace.says("|MEMORY|vxlb_mem.cpp|"));
    EXPECT_TRUE(trace.says("||VXLB_MALLOC'ed (a table) done. ptr = " + at + ", size = 24 for index 7\n"));
    EXPECT_TRUE(trace.says("||VXLB_MEMSET'ed (a table) done. ptr = " + at + ", size = 24 for index 7\n"));
    EXPECT_TRUE(trace.says("||VXLB_FREE'ed (a table) done. Freeing ptr = " + at + " for index 7"));
    EXPECT_FALSE(trace.says("nothing"));
}

TEST_F(Memory, ARefusedOrFailedGrowthLeavesTheBlock) {
    test::TraceFile trace(*app);
    vx_word_set(app->VXSys.memoryTraceLevel, 1);
    auto* block = static_cast<char*>(VXLB_REALLOC(nullptr, 8, "a buffer", -1));
    block[7] = 'x';
    EXPECT_EQ(VXLB_REALLOC(block, 0, "a buffer", 3), nullptr);
    EXPECT_EQ(VXLB_REALLOC(block, static_cast<std::size_t>(std::int64_t{-5}), "a buffer", 3), nullptr);
    EXPECT_TRUE(trace.says("Trying to realloc a negative or 0 size (0) for index  3\n"));
    EXPECT_TRUE(trace.says("Trying to realloc a negative or 0 size (-5) for index  3\n"));
    EXPECT_EQ(block[7], 'x');
    VXLB_FREE(block, "a buffer", -1);
}

}  // namespace
}  // namespace vx
