#include "commonlibc/vxlb_utiles.h"

#include <apr_general.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/by_name.h"
#include "tests/support/temp_dir.h"

namespace vx {
namespace {

using Texts = std::vector<std::string>;
using Splitter = int (*)(char* string, char** fields, const char* separators, int maxFields);

struct SplitCase {
    const char* name;
    Splitter splitter;
    const char* text;
    const char* separators;
    int maxFields;
    Texts fields;
};
class Split : public testing::TestWithParam<SplitCase> {};

TEST_P(Split, GivesTheseFields) {
    std::string text = GetParam().text;
    char* fields[8] = {};
    const int count = GetParam().splitter(text.data(), fields, GetParam().separators, GetParam().maxFields);
    EXPECT_EQ(Texts(fields, fields + count), GetParam().fields);
}

constexpr Splitter kTokens = vxlb_get_tokens_with_multi_delimiter;
constexpr Splitter kKeepEmpty = vxlb_split_keep_empty;
INSTANTIATE_TEST_SUITE_P(Tokens, Split,
                         testing::ValuesIn<SplitCase>({
                             {"no_empty_ones", kTokens, ";a;;b;", ";", 8, {"a", "b"}},
                             {"at_any_delimiter", kTokens, "a, b\tc", ", \t", 8, {"a", "b", "c"}},
                             {"later_ones_dropped", kTokens, "a;b;c;d", ";", 2, {"a", "b"}},
                             {"none_wanted", kTokens, "a;b", ";", 0, {}},
                             {"only_delimiters", kTokens, ";;;", ";", 8, {}},
                         }),
                         test::byName);
INSTANTIATE_TEST_SUITE_P(
    KeepEmpty, Split,
    testing::ValuesIn<SplitCase>({
        {"between_and_at_ends", kKeepEmpty, "|a||b|", "|", 8, {"", "a", "", "b", ""}},
        {"an_empty_text", kKeepEmpty, "", "|", 8, {""}},
        {"at_whole_sequences", kKeepEmpty, "a%2Cb%2%2C%2C", "%2C", 8, {"a", "b%2", "", ""}},
        {"lone_ampersand_stays", kKeepEmpty, "a&b&&c", "&&", 8, {"a&b", "c"}},
        {"rest_in_the_last", kKeepEmpty, "a|b|c|d", "|", 3, {"a", "b", "c|d"}},
        {"without_separator", kKeepEmpty, "a|b", "", 8, {"a|b"}},
    }),
    test::byName);

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

TEST(SearchKeyword, TakesLongerWordsAndRefusesEmptyValues) {
    EXPECT_STREQ(search_keyword("PROXYport=1=2", "proxyPort"), "1=2");
    EXPECT_STREQ(search_keyword("proxyPortExtra=7", "proxyPort"), "7");
    for (const char* line : {"proxyPort=", "proxyPort", "proxyPor", " proxyPort=1", ""})
        EXPECT_EQ(search_keyword(line, "proxyPort"), nullptr) << line;
    EXPECT_EQ(search_keyword(nullptr, "proxyPort"), nullptr);
}

TEST(Texts, AreCutAndTerminated) {
    char out[4] = "zzz";
    EXPECT_EQ(vxlb_copy_text(out, sizeof(out), "abcdef"), 3u);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(vxlb_copy_text(out, sizeof(out), nullptr), 0u);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(vxlb_copy_text(nullptr, 0, "a"), 0u);

    char blanks[] = " a b  c ";
    vxlb_remove_whitespaces(blanks);
    EXPECT_STREQ(blanks, "abc");
    vxlb_remove_whitespaces(nullptr);
}

TEST(OperationCodes, FollowTheRuleParsers) {
    EXPECT_EQ(setOperationCode("EQUALS"), 0);
    EXPECT_EQ(setOperationCode("not_Equals"), 13);
    EXPECT_EQ(setOperationCode("OCCURS"), 18);
    for (const char* other : {"", "EQUALSX", "EQUAL", " EQ"}) EXPECT_EQ(setOperationCode(other), -1) << other;
    EXPECT_EQ(setOperationCode(nullptr), -1);
}

class SystemHelpers : public testing::Test {
protected:
    void SetUp() override { apr_initialize(); }
    void TearDown() override { apr_terminate(); }
    test::TempDir dir;
};

TEST_F(SystemHelpers, MakeFoldersWithParents) {
    EXPECT_EQ(makeDir((dir / "a/b/c/").c_str()), 0);
    EXPECT_EQ(makeDir((dir / "a/b/c").c_str()), 0) << "an existing one is fine";
    EXPECT_TRUE(std::filesystem::is_directory(dir / "a/b/c"));
    dir.write("file", "");
    EXPECT_EQ(makeDir((dir / "file/under").c_str()), -1);
}

TEST_F(SystemHelpers, StatFilesAndReadVariables) {
    apr_finfo_t info{};
    EXPECT_EQ(vx_stat(dir.write("file", "12345").c_str(), &info), 0);
    EXPECT_EQ(info.size, 5);
    EXPECT_EQ(vx_stat((dir / "missing").c_str(), &info), -1);

    char value[4] = "old";
    setenv("VX_TEST_VARIABLE", "long value", 1);
    EXPECT_EQ(vxlb_get_env_var_value("VX_TEST_VARIABLE", value, sizeof(value)), 0);
    EXPECT_STREQ(value, "lon");
    unsetenv("VX_TEST_VARIABLE");
    EXPECT_EQ(vxlb_get_env_var_value("VX_TEST_VARIABLE", value, sizeof(value)), -1);
    EXPECT_STREQ(value, "");
}

}  // namespace
}  // namespace vx
