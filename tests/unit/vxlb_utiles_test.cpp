#include "commonlibc/vxlb_utiles.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vx {
namespace {

using Texts = std::vector<std::string>;
using Splitter = int (*)(char* string, char** fields, const char* separators, int maxFields);

constexpr Splitter kTokens = vxlb_get_tokens_with_multi_delimiter;
constexpr Splitter kKeepEmpty = vxlb_split_keep_empty;

TEST(Split, GivesTheseFields) {
    const struct {
        Splitter splitter;
        const char *text, *separators;
        int maxFields;
        Texts fields;
    } rows[] = {
        {kTokens, ";a;;b;", ";", 8, {"a", "b"}},
        {kTokens, "a, b\tc", ", \t", 8, {"a", "b", "c"}},
        {kTokens, "a;b;c;d", ";", 2, {"a", "b"}},
        {kTokens, ";;;", ";", 8, {}},
        {kKeepEmpty, "|a||b|", "|", 8, {"", "a", "", "b", ""}},
        {kKeepEmpty, "", "|", 8, {""}},
        {kKeepEmpty, "a%2Cb%2%2C%2C", "%2C", 8, {"a", "b%2", "", ""}},
        {kKeepEmpty, "a&b&&c", "&&", 8, {"a&b", "c"}},
        {kKeepEmpty, "a|b|c|d", "|", 3, {"a", "b", "c|d"}},
        {kKeepEmpty, "a|b", "", 8, {"a|b"}},
    };
    for (const auto& row : rows) {
        std::string text = row.text;
        char* fields[8] = {};
        const int count = row.splitter(text.data(), fields, row.separators, row.maxFields);
        EXPECT_EQ(Texts(fields, fields + count), row.fields) << row.text;
    }
}

}  // namespace
}  // namespace vx
