#include "commonlibc/vxbt/vxbt_header_stage.h"

#include <gtest/gtest.h>

#include <string>

#include "commonlibc/vxbt/vxbt_state_machine.h"

namespace vx::test {
namespace {

class HeaderStage : public testing::Test {
protected:
    void SetUp() override { vxlb_state_machine_init(&machine, 0); }
    void TearDown() override { vxlb_state_machine_free(&machine); }
    int add(const std::string& expression, std::int32_t id, std::int32_t matchType = 0) {
        return vxlb_state_machine_add_header(&machine, expression.data(), expression.size(), id, matchType);
    }
    // The answer for a header text; `text` then holds what it was decoded to.
    std::int32_t ask(const std::string& header, std::int32_t id) {
        text = header;
        return getBTHeader(&machine, text.data(), text.size(), id);
    }

    vxlb_state_machine machine{};
    std::string text;
};

TEST_F(HeaderStage, APairOfTheRequestHasToBeOneOfTheIds) {
    ASSERT_EQ(add("Shop=eu", 2) + add("Shop=us", 2, 1) + add("5=x", 2) + add("Tier=gold", 31), 0);
    for (const char* one : {"A=1&Shop=eu&B=2", "A=1&&Shop=us&", "A%26Shop%3Deu", "5=x"})
        EXPECT_EQ(ask(one, 2), 2) << one;
    for (const char* none : {"Shop=eux", "Shop=e", "&&", "xShop=eu", "Tier=gold", "Sh\xc3\xb6p=eu"})
        EXPECT_EQ(ask(none, 2), 0) << none;
    EXPECT_EQ(ask("", 2), -1);
    EXPECT_EQ(ask("Tier=gold", 31), 31);
    for (const std::int32_t unruled : {3, -2147483647}) EXPECT_EQ(ask("Shop=eu", unruled), unruled);
    EXPECT_EQ(getBTHeader(&machine, nullptr, 0, 2), -1);
    EXPECT_EQ(getBTHeader(&machine, nullptr, 0, 3), 3);
    EXPECT_EQ(getBTHeader(nullptr, nullptr, 0, 2), 2);
}

TEST_F(HeaderStage, ARefusedRuleLeavesItsIdWithoutOneAndEscapesAreDecodedInPlace) {
    EXPECT_TRUE(add("", 2) == -1 && add("Shop=\xc3\xa4", 2) == -1);
    EXPECT_EQ(ask("A=1", 2), 2);
    add("A", 2);
    ask("%124|%2C%2E%2F%39%34%3A%3D%5C%5E%60%2c%12%7C%%2C%2", 2);
    const std::string decoded = "||,./'\":=\\^ %2c%12%7C%,%2";
    EXPECT_EQ(text.substr(0, decoded.size()), decoded);
}

TEST_F(HeaderStage, OnlySoManyPairsAreLookedAt) {
    add("Shop=eu", 2);
    std::string pairs;
    for (int i = 0; i < 2047; ++i) pairs += "a&";
    EXPECT_EQ(ask(pairs + "Shop=eu", 2), 2);
    EXPECT_EQ(ask(pairs + "a&Shop=eu", 2), 0);
}

}  // namespace
}  // namespace vx::test
