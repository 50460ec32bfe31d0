#include "commonlibc/vxlb_utiles.h"

#include <apr_general.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

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

TEST(SplitKeyValue, CutsTheKeyAndNeedsTheSeparator) {
    char key[4];
    char field[] = "keyword=value=2";
    EXPECT_STREQ(split_key_value(field, key, sizeof(key)), "value=2");
    EXPECT_STREQ(key, "key");
    EXPECT_EQ(split_key_value_colon(field, key, sizeof(key)), nullptr);
    EXPECT_STREQ(key, "");
    char colon[] = "WS:";
    EXPECT_STREQ(split_key_value_colon(colon, key, sizeof(key)), "");
    EXPECT_STREQ(key, "WS");
}

TEST(Texts, AreCutAndTerminated) {
    char out[4] = "zzz";
    EXPECT_EQ(vxlb_copy_text(out, sizeof(out), "abcdef"), 3u);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(vxlb_copy_text(nullptr, 0, "a"), 0u);
    char blanks[] = " a b  c ";
    vxlb_remove_whitespaces(blanks);
    EXPECT_STREQ(blanks, "abc");
    for (const char* other : {"", "EQUALSX", "EQUAL", " EQ"}) EXPECT_EQ(setOperationCode(other), -1) << other;
    EXPECT_EQ(setOperationCode("not_Equals"), 13);
}

TEST(Folders, AreMadeWithTheirParents) {
    apr_initialize();
    const test::TempDir dir;
    EXPECT_EQ(makeDir((dir / "a/b/c/").c_str()), 0);
    EXPECT_EQ(makeDir((dir / "a/b/c").c_str()), 0) << "an existing one is fine";
    EXPECT_TRUE(std::filesystem::is_directory(dir / "a/b/c"));
    dir.write("file", "");
    EXPECT_EQ(makeDir((dir / "file/under").c_str()), -1);
    apr_terminate();
}

}  // namespace
}  // namespace vx
