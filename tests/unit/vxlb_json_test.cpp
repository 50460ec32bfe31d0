#include "commonlibc/vxlb_json.h"

#include <gtest/gtest.h>

#include <cstring>

namespace vx {
namespace {

TEST(JsonFromPairs, WritesOneCompactLineOrRefuses) {
    const struct {
        const char *pairs, *json;  // null: refused
    } rows[] = {
        {"z=1,a=two words", R"({"z":"1","a":"two words"})"},
        {"a=1, b=2", R"({"a":"1","b":"2"})"},
        {"a=b=\"c\"", R"({"a":"b=\"c\""})"},
        {"a=", R"({"a":""})"},
        {"a=1,a=2", R"({"a":"2"})"},
        {"a=x\ny", R"({"a":"x\ny"})"},
        {" { \"a\" : [ 1, {} ] } ", R"({"a":[1,{}]})"},
        {"{\"a\":", nullptr},
        {"{} x", nullptr},
        {"a=1,b", nullptr},
        {"=1", nullptr},
        {"a=\xFF", nullptr},
        {"[1]", nullptr},
        {nullptr, nullptr},
    };
    for (const auto& row : rows) {
        char out[64] = "old";
        EXPECT_EQ(vxlb_json_from_pairs(row.pairs, out, sizeof(out)),
                  row.json ? static_cast<int>(std::strlen(row.json)) : -1);
        EXPECT_STREQ(out, row.json ? row.json : "");
    }
    char out[8] = "";
    EXPECT_EQ(vxlb_json_from_pairs("{\"a\":1}", out, 8), 7);
    EXPECT_EQ(vxlb_json_from_pairs("{\"a\":12}", out, 8), -1);
    EXPECT_STREQ(out, "");
}

}  // namespace
}  // namespace vx
