#include "commonlibc/vxlb_json.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/by_name.h"

namespace vx {
namespace {

struct JsonCase {
    const char* name;
    const char* pairs;
    const char* json;  // null: refused
};
class JsonFromPairs : public testing::TestWithParam<JsonCase> {};

TEST_P(JsonFromPairs, WritesOrRefuses) {
    char out[64] = "old";
    const char* json = GetParam().json;
    EXPECT_EQ(vxlb_json_from_pairs(GetParam().pairs, out, sizeof(out)),
              json ? static_cast<int>(std::string(json).size()) : -1);
    EXPECT_STREQ(out, json ? json : "");
}

INSTANTIATE_TEST_SUITE_P(Texts, JsonFromPairs,
                         testing::ValuesIn<JsonCase>({
                             {"pairs_in_order", "z=1,a=two words", R"({"z":"1","a":"two words"})"},
                             {"blanks_ahead_of_a_key", "a=1, b=2", R"({"a":"1","b":"2"})"},
                             {"value_with_equals_or_quote", "a=b=\"c\"", R"({"a":"b=\"c\""})"},
                             {"empty_value", "a=", R"({"a":""})"},
                             {"last_of_equal_keys", "a=1,a=2", R"({"a":"2"})"},
                             {"control_bytes_stay_one_line", "a=x\ny", R"({"a":"x\ny"})"},
                             {"object_compact", " { \"a\" : [ 1, {} ] } ", R"({"a":[1,{}]})"},
                             {"broken_object", "{\"a\":", nullptr},
                             {"object_and_more", "{} x", nullptr},
                             {"word_without_value", "a=1,b", nullptr},
                             {"empty_key", "=1", nullptr},
                             {"no_utf8", "a=\xFF", nullptr},
                             {"array", "[1]", nullptr},
                             {"empty", "", nullptr},
                             {"null", nullptr, nullptr},
                         }),
                         test::byName);

TEST(JsonFromPairsSize, RefusesWhatDoesNotFitWithItsTerminator) {
    char out[8] = "";
    EXPECT_EQ(vxlb_json_from_pairs("{\"a\":1}", out, 8), 7);
    EXPECT_EQ(vxlb_json_from_pairs("{\"a\":12}", out, 8), -1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(vxlb_json_from_pairs("a=1", out, 1), -1);
}

}  // namespace
}  // namespace vx
