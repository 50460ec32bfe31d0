#include "commonlibc/vxbt/vxbt_rule_check.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/temp_dir.h"

namespace vx::test {
namespace {

class CheckRules : public testing::Test {
protected:
    int check(const std::string& text, const VXCheckedRequest& request = {}) {
        return vxCheckRules(dir.write("rules", text).c_str(), request, &report);
    }
    bool says(const std::string& text) const { return report.find(text) != std::string::npos; }

    TempDir dir;
    std::string report;
};

TEST_F(CheckRules, TellsWhatEachLineMeans) {
    EXPECT_EQ(check("# shop\n\n5|4096\n7|Shop|2|1|/shop|0\n7|Pay|3|0|/pay|0|3|step=2|POST\n"
                    "7|Health|4|1|/health|1|0|-|-|-|-\n"),
              kRulesInOrder)
        << report;
    EXPECT_TRUE(
        says("     1  comment\n     3  setting: the pattern table begins with room for 4096 states\n"
             "     4  pattern rule: URL \"/shop\" and what goes on from it -> BT \"Shop\", id 2\n"
             "     5  pattern rule: URL \"/pay\", a parameter \"step=2\", method \"POST\" -> BT "
             "\"Pay\", id 3\n"
             "     6  pattern rule: URL \"/health\" and what goes on from it -> excluded\n"))
        << report;

    EXPECT_EQ(check("2|2|r|Shop|-|1|7|[input1=startswith&&input2=/shop]|-\n"), kRulesInOrder) << report;
    EXPECT_TRUE(says("custom rule: URL begins with \"/shop\" -> BT \"Shop\", priority 7")) << report;
    EXPECT_EQ(check("1|2|n|d|FromLast|2|Request-Header|Shop|-"), kRulesInOrder) << report;
    EXPECT_TRUE(says("name: the last 2 segments of the URL, then \".\" and the value of header \"Shop\""))
        << report;
    EXPECT_EQ(check(""), kRulesInOrder);
    EXPECT_TRUE(says("the default rule decides (name: the first 2 segments of the URL, then")) << report;
}

TEST_F(CheckRules, TellsEachFault) {
    const char* const rows[][2] = {
        {"7|A|2|0|/a\n", "! fewer than 6 fields: '7|A|2|0|/a'"},
        {"9|x", "! lines of this type have no effect"},
        {"7|A|2|0|/a|0\n7|B|3|0|/b|0|0|-|-|S=e|-", "! the header has no effect"},
        {"7|A|2|0|/a|1|0|-|-|S=e|-", "! the header has no effect, only rules"},
        {"1|1|n|d|-|-|-|-|-\n1|2|n|d|-|-|-|-|-", "! the first global rule counts"},
        {"1|1|n|d|-|-|-|-|-\n7|A|2|0|/a|0", "! pattern rules go before"},
        {"2|2|r|C|-|1|1|[input1=EQUALS&&input2=/c]|-\n7|A|2|0|/a|0", "! pattern rules go before custom"},
        {"1|1|n|d|-|-|-|-|-\n2|2|r|C|-|1|1|[input1=EQUALS&&input2=/c]|-", "! custom rules go before the gl"},
        {"7|A|2|0|/a*|0\n7|B|3|0|/a|0", "line 1: line 2 always goes before it"},
        {"7|A|2|0|/a|0|0|-|-|S=e|-\n7|B|3|0|/a|0|0|-|-|S=u|-", "line 1: line 2 always goes before it"},
        {"7|A|2|0|/a?x=1|0", "line 1: no request can match it"},
        {"7|A|-5|0|/a|0", "line 1: id -5 names no BT, what it takes is \"Others\""},
        {"7|A|1|0|/a|0", "line 1: has the id of \"Others\""},
        {"7|A|2|0|/a|0\n7|B|2|0|/b|0", "line 2: has id 2 like line 1, whose BT is 'A'"},
        {"7|A|2|0|/a|0\n7|A|3|0|/b|0", "line 2: BT 'A' has another id in line 1"},
        {"2|1|r|C|-|1|1|GET|-", "line 1: no request can match it"},
        {"2|2|r|C|-|1|-1|[input1=EQUALS&&input2=/c]|-", "line 1: no request can match it"},
        {"2|2|r|C|-|1|1|[input1=EQUALS&&input2=/c]|-\n2|2|r|D|-|1|2|[input1=startswith&&input2=/c]|-",
         "line 1: line 2 always goes before it"},
    };
    for (const auto& [rules, told] : rows) {
        EXPECT_EQ(check(rules), kRulesAtFault) << report;
        EXPECT_TRUE(says(told)) << told << "\n" << report;
    }
}

TEST_F(CheckRules, DoesNotWarnOfRulesThatRequestsReach) {
    EXPECT_EQ(check("7|A|2|1|/a|0\n7|B|3|1|/a/b|0\n7|C|4|0|/a/b|0\n7|D|5|0|/a*z|0\n7|E|6|0|/q|0|1|x=1\n"
                    "7|F|7|0|/q|0|1|y=2\n7|G|8|0|/m|0|2|-|GET\n7|H|9|0|/m|0|2|-|POST\n7|R|10|1|*|0\n"),
              kRulesInOrder)
        << report;
    EXPECT_EQ(check("7|A|2|0|/a|0|0|-|-|S=e|-\n7|A|2|0|/a|0|0|-|-|S=u|-\n"), kRulesInOrder) << report;
}

TEST_F(CheckRules, ReadsOnlyFilesOfABoundedSize) {
    EXPECT_EQ(check(std::string(2 << 20, '7')), kRulesAtFault);
    EXPECT_EQ(vxCheckRules(dir.path().c_str(), {}, &report), kRulesAtFault);
    EXPECT_TRUE(says("cannot be read"));
}

}  // namespace
}  // namespace vx::test
