#include "commonlibc/vxbt/vxbt_rule_explain.h"

#include <apr_general.h>
#include <gtest/gtest.h>

#include <string>

#include "commonlibc/vxbt/vxbt_rule_execute.h"

namespace vx::test {
namespace {

constexpr const char* kWords[] = {"names", "outdone", "fails", "mute"};

struct Case {
    const char* rules;
    const char* request;  // method, URL
    const char* header;
    const char* told;  // BT, then for each line what becomes of it
};
class ExplainRequest : public testing::Test {
protected:
    ExplainRequest() { apr_initialize(); }
    ~ExplainRequest() override { apr_terminate(); }
};

std::string explained(const Case& at) {
    VXRuleReading reading;
    EXPECT_TRUE(reading.good() && reading.read(at.rules));
    const std::string request = at.request;
    const std::size_t blank = request.find(' ');
    const VXUrlParts parts = vxSplitUrl(std::string_view(at.request).substr(blank + 1));
    const VXExplanation got = vxExplainRequest(
        reading, {std::string(parts.path), std::string(parts.query), request.substr(0, blank)}, at.header);
    std::string out = got.answer.bt.empty() ? "excluded" : got.answer.bt;
    out += " " + std::to_string(got.line);
    for (const VXLineReason& line : got.lines)
        out += std::string("\n") + kWords[static_cast<int>(line.verdict)] + ": " + line.reason;
    return out;
}

TEST_F(ExplainRequest, TellsWhatEachLineSaysToIt) {
    const Case rows[] = {
        {"7|A|2|1|/a|0\n7|B|3|1|/a/b|0\n7|C|4|0|/a/b/c|0\n7|D|5|0|/a/b|0", "GET /a/b/c", nullptr,
         "C 3\noutdone: line 3 is exact\noutdone: line 3 is exact\nnames: takes the request\n"
         "fails: the URL goes on behind \"/a/b\", and the rule is exact"},
        {"7|A|2|1|/a|0\n7|B|3|1|/a/b|0\n7|X|4|1|/a/x|0", "GET /a/bc", nullptr,
         "B 2\noutdone: line 2 fits more of the URL\nnames: takes the request\n"
         "fails: the URL fits \"/a/x\" only as far as \"/a/\""},
        {"7|A|2|0|/a|0\n#\n7|B|3|0|/a|0\n7|bad\n5|9", "GET /a", nullptr,
         "B 3\noutdone: line 3 has the same pattern and stands behind it\nmute: a comment\n"
         "names: takes the request\nmute: fewer than 6 fields\nmute: a setting"},
        {"7|H|2|1|/h|1\n7|A|3|1|*|0", "GET /h/x", nullptr,
         "excluded 1\nnames: takes the request, which is excluded\noutdone: line 1 fits more of the URL"},
        {"7|Q|2|0|/a|0|1|x=1\n7|M|3|0|/a|0|2|-|POST\n7|P|4|1|/a|0|1|y=", "GET /a?x=2", nullptr,
         "Others 0\nfails: no parameter of the query is \"x=1\"\nfails: the method is GET, the rule asks for "
         "POST\nfails: no parameter of the query begins with \"y=\""},
        {"7|B|2|0|/a|0|3|x=1|POST", "GET /a", nullptr,
         "Others 0\nfails: the request has no query, the rule asks for \"x=1\""},
        {"7|W|2|0|/a/*/z|0|1|x=1", "GET /a/b/z?x=1", nullptr,
         "Others 0\nfails: the URL needed its \"*\": then only partial rules ask for query and method"},
        {"7|E|2|0|/a|0|0|-|-|S=e|-\n7|F|2|0|/b|0|0|-|-|-|-", "GET /a", "S=u",
         "Others 0\nfails: the request does not have the header \"S=e\", so that it is \"Others\"\n"
         "fails: the URL fits \"/b\" only as far as \"/\""},
        {"7|E|2|0|/a|0|0|-|-|S=e|-\n7|E|2|0|/a|0|0|-|-|S=u|-", "GET /a", "S=e",
         "E 1\nnames: takes the request\nfails: the request does not have the header \"S=u\""},
        {"2|2|r|A|-|1|1|[input1=startswith&&input2=/a]|-\n2|2|r|B|-|1|2|[input1=endswith&&input2=/b]|-\n"
         "2|2|r|C|-|1|2|[input1=contains&&input2=/a]|-\n2|2|r|D|-|1|2|[input1=EQUALS&&input2=/b]|-\n"
         "2|1|r|E|-|1|9|GET|-\n1|1|n|d|-|-|-|-|-",
         "GET /a/b", nullptr,
         "B 2\noutdone: line 2 has a higher priority\nnames: its keyword is the best in the URL\n"
         "fails: \"/a\" stands only at the very beginning of the URL, where it does not count\n"
         "fails: \"/b\" is not the whole URL\nfails: its keyword \"GET\" has no operator that a URL can "
         "meet\n"
         "mute: custom rules go before the global rule"},
        {"1|2|n|d|FromFirst|1|Request-Method|-|-", "PUT /a/b", nullptr,
         "/a.PUT 1\nnames: name: the first 1 segments of the URL, then \".\" and the method"},
        {"# none", "GET /a/b/c", nullptr, "/a/b 0\nmute: a comment"},
    };
    for (const Case& row : rows) EXPECT_EQ(explained(row), row.told);
}

}  // namespace
}  // namespace vx::test
