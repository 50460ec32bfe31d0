#include "commonlibc/vxbt/vxbt_rule_execute.h"

#include <gtest/gtest.h>

#include <string>

#include "commonlibc/vxbt/vxbt_automaton.h"
#include "commonlibc/vxbt/vxbt_state_machine.h"
#include "tests/support/by_name.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

constexpr const char* kNoBt = nullptr;

struct Request {
    const char* url = "/a/b/c/d";
    const char* query = nullptr;
    const char* method = nullptr;
    const char* header = nullptr;
};
struct Case {
    const char* name;
    const char* rule;
    Request request;
    const char* expected;  // the BT's name, null when there is none
};

class RuleExecution : public KnowledgeFixture {
protected:
    BTObject* execute(const Request& request) {
        char header[256];
        vxlb_copy_text(header, sizeof(header), request.header);
        return get_obj_from_bt_name(request.url, request.query, request.header ? header : nullptr,
                                    app->flowpath.poolMutex, request.method);
    }
};

class GlobalRule : public RuleExecution, public testing::WithParamInterface<Case> {};

TEST_P(GlobalRule, Names) {
    setRule(GetParam().rule);
    const BTObject* object = execute(GetParam().request);
    if (!GetParam().expected) {
        EXPECT_EQ(object, nullptr);
        return;
    }
    ASSERT_NE(object, nullptr);
    EXPECT_STREQ(object->btName, GetParam().expected);
}

constexpr const char* kUrl = "1|1|n|d|x|-|-|-|-";
constexpr const char* kMethod = "1|1|n|d|x|-|Request-Method|-|-";
constexpr const char* kParameter = "1|1|n|d|x|-|Request-Parameter-Value|id|-";
constexpr const char* kHeader = "1|1|n|d|x|-|Request-Header|Shop|-";
constexpr const char* kFirst2 = "1|2|n|d|FromFirst|2|-|-|-";
constexpr const char* kLast2 = "1|2|n|d|FromLast|2|-|-|-";

INSTANTIATE_TEST_SUITE_P(
    Of, GlobalRule,
    testing::ValuesIn<Case>({
        {"url", kUrl, {}, "/a/b/c/d"},
        {"url_that_is_empty", kUrl, {.url = ""}, kNoBt},
        {"mode_that_is_none", "1|9|n|d|x|-|-|-|-", {}, kNoBt},

        {"method", kMethod, {.url = "/u", .method = "GET"}, "/u.GET"},
        {"method_missing", kMethod, {.url = "/u"}, "/u"},
        {"method_empty", kMethod, {.url = "/u", .method = ""}, "/u"},
        {"method_and_segments", "1|2|n|d|FromLast|1|Request-Method|-|-", {.method = "PUT"}, "/d.PUT"},

        {"parameter_first", kParameter, {.url = "/u", .query = "id=7&x=1"}, "/u.7"},
        {"parameter_between", kParameter, {.url = "/u", .query = "x=1&id=7&y=2"}, "/u.7"},
        {"parameter_last", kParameter, {.url = "/u", .query = "x=1&id=7"}, "/u.7"},
        {"parameter_of_a_longer_name", kParameter, {.url = "/u", .query = "uid=7&idx=8"}, "/u"},
        {"parameter_without_a_query", kParameter, {.url = "/u"}, "/u"},

        {"header_in_front", kHeader, {.url = "/u", .header = "Shop=eu&A=1&"}, "/u.eu"},
        {"header_later", kHeader, {.url = "/u", .header = "A=1&Shop=eu&"}, "/u.eu"},
        {"header_last_and_not_closed", kHeader, {.url = "/u", .header = "A=1&Shop=eu"}, "/u"},
        {"header_without_a_value", kHeader, {.url = "/u", .header = "Shop&B=2&"}, "/u"},
        {"no_headers", kHeader, {.url = "/u"}, "/u"},
        {"too_few_fields_gives_the_default", "1|1|n|d|x|-|-|-", {.header = "CustomeHeader=x&"}, "/a/b.x"},
        {"an_empty_line_gives_the_default", "", {.header = "CustomeHeader=x&"}, "/a/b.x"},

        {"first_segments", kFirst2, {}, "/a/b"},
        {"first_segments_of_just_as_many", kFirst2, {.url = "/a/b"}, "/a/b"},
        {"first_segments_with_a_last_slash", kFirst2, {.url = "/a/b/"}, "/a/b"},
        {"last_segments", kLast2, {}, "/c/d"},
        {"last_segments_of_fewer", kLast2, {.url = "/a"}, "/a"},
        {"last_segments_of_a_slash", kLast2, {.url = "/"}, "/"},
        {"last_segments_of_nothing", kLast2, {.url = ""}, kNoBt},
        {"segments_without_an_order", "1|2|n|d|x|2|-|-|-", {}, "/a/b/c/d"},
        {"segments_of_a_negative_count", "1|2|n|d|FromFirst|-3|-|-|-", {}, "/a/b/c/d"},
        {"segments_without_a_count", "1|2|n|d|FromFirst|-|-|-|-", {}, "/a/b/c/d"},
        {"unknown_dynamic_part", "1|2|n|d|FromFirst|2|Something|-|-", {}, kNoBt},

        {"numbers", "1|2|n|d|FromFirst|1|Request-URI-Segments-Numbers|1%2C3|-", {}, "/a/a/c"},
        {"numbers_not_given", "1|2|n|d|FromFirst|1|Request-URI-Segments-Numbers|-|-", {}, "/a/a/b"},
        {"numbers_beyond", "1|2|n|d|FromFirst|1|Request-URI-Segments-Numbers|4%2C5%2C1|-", {}, "/a/d"},
        {"numbers_from_zero", "1|2|n|d|FromFirst|1|Request-URI-Segments-Numbers|0%2C1|-", {}, "/a"},
        {"numbers_of_a_whole_url", "1|1|n|d|FromFirst|1|Request-URI-Segments-Numbers|2|-", {}, "/a/b"},
    }),
    byName);

TEST_F(RuleExecution, TheHeaderTextIsTakenApartInPlace) {
    setRule(kHeader);
    char header[] = "A=1&Shop=eu&B=2&";
    EXPECT_STREQ(getBtBaseOnHeader(header), "eu");
    EXPECT_STREQ(header, "A=1&Shop");

    setRule("1|1|n|d|x|-|Request-Header||-");
    char untouched[] = "A=1&B=2&";
    EXPECT_EQ(getBtBaseOnHeader(untouched), nullptr);
    EXPECT_STREQ(untouched, "A=1&B=2&");
}

TEST_F(RuleExecution, LongNamesAreCutAtTheirLimits) {
    const std::string url = "/" + std::string(600, 'u');
    char name[kBtNameBufferSize];
    setRule(kUrl);
    EXPECT_EQ(std::string(vxbt_execute_global_rule(url.c_str(), "", "", nullptr, name)).size(), 256U);
    setRule(kFirst2);
    EXPECT_EQ(std::string(vxbt_execute_global_rule(url.c_str(), "", "", nullptr, name)).size(), 255U);
    setRule(kMethod);
    EXPECT_EQ(std::string(vxbt_execute_global_rule(url.c_str(), "", "GET", nullptr, name)).size(), 511U);
    setRule(kParameter);
    EXPECT_EQ(std::string(get_param_value(("id=" + url).c_str(), name)).size(), 256U);
}

TEST_F(RuleExecution, LongArgumentsOfARuleAreCut) {
    const std::string longName(400, 'p');
    setRule("1|1|n|d|x|-|Request-Parameter-Value|" + longName + "|-");
    const VXBTGlobalRule* rule = app->bt.global_rule;
    EXPECT_EQ(std::string(rule->paramName), longName.substr(0, 256));
    EXPECT_EQ(rule->prefixLength, 257);
    EXPECT_EQ(std::string(rule->paramInfix), "&" + longName.substr(0, 256) + "=");

    std::string numbers = "1";
    for (int i = 2; i <= 40; ++i) numbers += "%2C" + std::to_string(i);
    setRule("1|1|n|d|x|-|Request-URI-Segments-Numbers|" + numbers + "|-");
    rule = app->bt.global_rule;
    EXPECT_EQ(rule->uri_seg_no_list_length, 32);
    EXPECT_EQ(rule->uriSegList[31], 32);
}

TEST_F(RuleExecution, WithoutARuleEveryUrlIsOthers) {
    VXLB_FREE(app->bt.global_rule.exchange(nullptr), "VXBTGlobalRule", -1);
    EXPECT_STREQ(execute({.header = "A=1&"})->btName, "Others");
}

// Pattern rules in place of the global one.
class PatternRule : public RuleExecution {
protected:
    void SetUp() override {
        RuleExecution::SetUp();
        vxlb_state_machine_init(&rules.urlMachine, 0);
        read = app->bt.ruleSet.exchange(&rules);
        app->bt.applicableRule = kPatternRule;
    }
    void TearDown() override {
        app->bt.ruleSet = read;
        vxlb_state_machine_free(&rules.urlMachine);
        vxlb_state_machine_free(&rules.headerMachine);
        RuleExecution::TearDown();
    }
    void add(const std::string& url, std::int32_t id, const std::string& header = "") {
        vxlb_state_machine_add(&rules.urlMachine, url.c_str(), url.size(), nullptr, 0, id, 1, 0);
        if (header.empty()) return;
        if (!rules.headerMachine.capacity) vxlb_state_machine_init(&rules.headerMachine, 0);
        vxlb_state_machine_add_header(&rules.headerMachine, header.c_str(), header.size(), id, 0);
    }

    VXBTRuleSet rules{};
    VXBTRuleSet* read = nullptr;  // what the set-up left
};

TEST_F(PatternRule, TakesTheBtOfTheSlot) {
    BTObject* others = btOf("Others");
    BTObject* second = btOf("second");
    add("/second", 2, "Shop=eu");
    add("/free", 3);
    add("/others", 1);
    add("/none", kBtIdExcluded);
    add("/far", 5000);
    const struct {
        Request request;
        BTObject* expected;
    } rows[] = {
        {{.url = "/second/x", .header = "A=1&Shop=eu"}, second},
        {{.url = "/second/x", .header = "A=1&Shop=us"}, others},
        {{.url = "/second/x"}, others},
        {{.url = "/others"}, others},
        {{.url = "/unknown"}, others},
        {{.url = "/none", .header = "Shop=eu"}, nullptr},
        {{.url = "/far"}, nullptr},
        {{.url = "/free"}, nullptr},
    };
    for (const auto& row : rows) EXPECT_EQ(execute(row.request), row.expected) << row.request.url;

    app->bt.ruleSet = nullptr;
    EXPECT_EQ(execute({.url = "/second"}), others);
    app->bt.ruleSet = &rules;
}

TEST_F(RuleExecution, CustomRulesWinOverTheGlobalOneOnceTheyHaveAMachine) {
    VXBTRuleSet rules{};
    vxlb_build_lexicon(&rules.customRule);
    rules.customRule.mode = 2;
    add_to_lexicon(&rules.customRule, "/pay", 1, "Pay", kMatchEndsWith);
    VXBTRuleSet* read = app->bt.ruleSet.exchange(&rules);
    EXPECT_STREQ(execute({.url = "/shop/pay"})->btName, "/shop/pay") << "no machine";

    ASSERT_GT(vxlb_init_automaton(&rules.customMachine, &rules.customRule), 0);
    EXPECT_STREQ(execute({.url = "/shop/pay"})->btName, "Pay");
    BTObject* object = execute({.url = "/shop"});
    EXPECT_STREQ(object->btName, "others");
    EXPECT_NE(object->btId, kBtIdOthers) << "not the one with a capital";

    app->bt.applicableRule = kPatternRule;
    EXPECT_EQ(execute({.url = "/shop/pay"}), nullptr) << "no pattern machine: Others, which is not there";
    app->bt.ruleSet = read;
    vxlb_free_automaton(&rules.customMachine);
}

}  // namespace
}  // namespace vx::test
