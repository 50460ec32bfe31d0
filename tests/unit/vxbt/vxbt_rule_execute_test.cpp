#include "commonlibc/vxbt/vxbt_rule_execute.h"

#include <string>

#include "tests/support/knowledge_fixture.h"
#include "tests/support/trace_file.h"

namespace vx::test {
namespace {

constexpr const char* kUrl = "1|1|n|d|x|-|-|-|-";
constexpr const char* kMethod = "1|1|n|d|x|-|Request-Method|-|-";
constexpr const char* kParameter = "1|1|n|d|x|-|Request-Parameter-Value|id|-";
constexpr const char* kHeader = "1|1|n|d|x|-|Request-Header|Shop|-";
constexpr const char* kNumbers = "1|2|n|d|FromFirst|1|Request-URI-Segments-Numbers|";

struct Request {
    const char* url = "/a/b/c/d";
    const char* query = nullptr;
    const char* method = nullptr;
    const char* header = nullptr;
};

class GlobalRule : public KnowledgeFixture {
protected:
    std::string nameOf(const Request& request) {
        char header[256];
        vxlb_copy_text(header, sizeof(header), request.header);
        const BTObject* bt =
            get_obj_from_bt_name(request.url, request.query, request.header ? header : nullptr,
                                 app->flowpath.poolMutex, request.method);
        return bt ? bt->btName : "none";
    }
};

// What docs/rules.md leaves open; its examples are tests, too.
TEST_F(GlobalRule, Names) {
    const struct {
        std::string rule;
        Request request;
        const char* expected;
    } rows[] = {
        {kUrl, {.url = ""}, "none"},
        {"1|9|n|d|x|-|-|-|-", {}, "none"},
        {kMethod, {.url = "/u"}, "/u"},
        {kParameter, {.url = "/u", .query = "id=7&x=1"}, "/u.7"},
        {kParameter, {.url = "/u", .query = "uid=7&idx=8"}, "/u"},
        {kParameter, {.url = "/u"}, "/u"},
        {kHeader, {.url = "/u", .header = "Shop&B=2&"}, "/u"},
        {kHeader, {.url = "/u"}, "/u"},
        {"1|1|n|d|x|-|Request-Header||-", {.url = "/u", .header = "A=1&B=2&"}, "/u"},
        {"1|1|n|d|x|-|-|-", {.header = "CustomeHeader=x&"}, "/a/b.x"},  // too short: the default
        {"1|2|n|d|FromFirst|2|-|-|-", {.url = "/a/b/"}, "/a/b"},
        {"1|2|n|d|FromLast|2|-|-|-", {.url = "/a"}, "/a"},
        {"1|2|n|d|FromLast|2|-|-|-", {.url = ""}, "none"},
        {"1|2|n|d|x|2|-|-|-", {}, "/a/b/c/d"},
        {"1|2|n|d|FromFirst|-3|-|-|-", {}, "/a/b/c/d"},
        {"1|2|n|d|FromFirst|2|Something|-|-", {}, "none"},
        {std::string(kNumbers) + "-|-", {}, "/a/a/b"},
        {std::string(kNumbers) + "4%2C5%2C1|-", {}, "/a/d"},  // there is no fifth
        {std::string(kNumbers) + "0%2C1|-", {}, "/a"},
        {"1|1|n|d|FromFirst|1|Request-URI-Segments-Numbers|2|-", {}, "/a/b"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rule + " " + row.request.url);
        setRule(row.rule);
        EXPECT_EQ(nameOf(row.request), row.expected);
    }
    VXLB_FREE(app->bt.global_rule.exchange(nullptr), "VXBTGlobalRule", -1);
    EXPECT_EQ(nameOf({.header = "A=1&"}), "Others") << "without a rule";
}

TEST_F(GlobalRule, LongNamesAndArgumentsAreCutAtTheirLimits) {
    const std::string url = "/" + std::string(600, 'u'), longName(400, 'p');
    char name[kBtNameBufferSize];
    const auto lengthUnder = [&](const char* rule) {
        setRule(rule);
        return std::string(vxbt_execute_global_rule(url.c_str(), "", "GET", nullptr, name)).size();
    };
    EXPECT_EQ(lengthUnder(kUrl), 256U);
    EXPECT_EQ(lengthUnder("1|2|n|d|FromFirst|2|-|-|-"), 255U);
    EXPECT_EQ(lengthUnder(kMethod), 511U);
    setRule(kParameter);
    EXPECT_EQ(std::string(get_param_value(("id=" + url).c_str(), name)).size(), 256U);

    setRule("1|1|n|d|x|-|Request-Parameter-Value|" + longName + "|-");
    EXPECT_EQ(std::string(app->bt.global_rule.load()->paramInfix), "&" + longName.substr(0, 256) + "=");
    std::string numbers = "1";
    for (int i = 2; i <= 40; ++i) numbers += "%2C" + std::to_string(i);
    setRule(kNumbers + numbers + "|-");
    EXPECT_EQ(app->bt.global_rule.load()->uri_seg_no_list_length, 32);
}

TEST_F(GlobalRule, APatternRuleWhoseBtIsNotThereNamesNone) {
    rulesAre("7|A|2|0|/a|0\n7|X|3|0|/x|1");
    {
        const TraceFile trace(*app, 1);
        EXPECT_EQ(nameOf({.url = "/a"}) + nameOf({.url = "/b"}) + nameOf({.url = "/x"}), "AOthersnone");
        EXPECT_EQ(trace.text(), "") << "no line for each transaction at the level of production";
    }
    vxAggSlot(app->bt.aggDataArr, 2)->btObj = nullptr;
    EXPECT_EQ(nameOf({.url = "/a"}), "none");
    VXBTRuleSet* rules = app->bt.ruleSet.exchange(nullptr);
    EXPECT_EQ(nameOf({.url = "/a"}), "Others") << "no rules were read";
    app->bt.ruleSet = rules;
}

}  // namespace
}  // namespace vx::test
