#include "commonlibc/vxlb_hashMapMethod.h"

#include <apr_general.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "commonlibc/vxlb_hash.h"

namespace vx {
namespace {

class Map : public testing::Test {
protected:
    void SetUp() override {
        apr_initialize();
        map = create_hashmap(nullptr);
    }
    void TearDown() override {
        destroy_hashmap(map);
        apr_terminate();
    }

    VXMap* map = nullptr;
    int one = 1, two = 2;
};

TEST_F(Map, AReplacedEntryForgetsItsFormerKey) {
    char former[] = "key", present[] = "key";
    modify_hashmap(former, &one, map);
    modify_hashmap(present, &two, map);
    std::strcpy(former, "xxx");  // its owner is gone
    EXPECT_EQ(search_hashmap("key", map), &two);
    EXPECT_EQ(vxlb_map_count(map), 1u);
    modify_hashmap("key", nullptr, map);
    EXPECT_EQ(search_hashmap("key", map), nullptr);
}

// Each key stands in a block of its own size, so that a sanitizer sees a read beside it.
TEST_F(Map, EveryByteOfAKeyCountsAndNoOtherIsRead) {
    for (apr_ssize_t length = 0; length < 70; ++length) {
        std::vector<char> key(static_cast<std::size_t>(length), 'k');
        apr_ssize_t given = length, ofText = APR_HASH_KEY_STRING;
        const unsigned whole = vxlb_hash(key.data(), &given);
        const std::string shifted = " " + std::string(key.begin(), key.end());
        EXPECT_EQ(vxlb_hash(shifted.c_str() + 1, &ofText), whole);
        EXPECT_EQ(ofText, length);
        for (char& byte : key) {
            byte ^= 1;
            EXPECT_NE(vxlb_hash(key.data(), &given), whole) << length;
            byte ^= 1;
        }
    }
}

}  // namespace
}  // namespace vx
