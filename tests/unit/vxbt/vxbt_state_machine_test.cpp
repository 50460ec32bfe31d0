#include "commonlibc/vxbt/vxbt_state_machine.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/by_name.h"

namespace vx::test {
namespace {

constexpr int kExact = 0, kPartial = 1;

// A rule as an operator writes it: the pattern of the machine is made from its texts.
struct Rule {
    std::string url;
    int matchType;
    int id;
    std::string query = "", method = "";

    std::string pattern() const { return query.empty() ? url : url + "*" + query + "*"; }
    int mode() const { return (query.empty() ? 0 : 1) + (method.empty() ? 0 : 2); }
};

class Machine {
public:
    explicit Machine(const std::vector<Rule>& rules = {}, int maxStates = 0) {
        vxlb_state_machine_init(&machine_, maxStates);
        for (const Rule& rule : rules) EXPECT_EQ(add(rule), 0) << rule.url;
    }
    ~Machine() { vxlb_state_machine_free(&machine_); }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    int add(const Rule& rule) {
        const std::string pattern = rule.pattern();
        return vxlb_state_machine_add(&machine_, pattern.data(), pattern.size(), rule.method.data(),
                                      rule.method.size(), rule.id, rule.matchType, rule.mode());
    }
    int find(const std::string& url, const char* query = nullptr, const char* method = nullptr) const {
        return vxlb_state_machine_search(&machine_, url.data(), static_cast<std::int64_t>(url.size()), query,
                                         method);
    }
    vxlb_state_machine* get() { return &machine_; }

private:
    vxlb_state_machine machine_{};
};

struct Ask {
    int expected;
    std::string url;
    const char* query = nullptr;
    const char* method = nullptr;
};
struct Case {
    const char* name;
    std::vector<Rule> rules;
    std::vector<Ask> asks;
};
class StateMachine : public testing::TestWithParam<Case> {};

TEST_P(StateMachine, Finds) {
    const Machine machine(GetParam().rules);
    for (const Ask& ask : GetParam().asks)
        EXPECT_EQ(machine.find(ask.url, ask.query, ask.method), ask.expected)
            << ask.url << " query " << (ask.query ? ask.query : "-") << " method "
            << (ask.method ? ask.method : "-");
}

INSTANTIATE_TEST_SUITE_P(
    Rules, StateMachine,
    testing::ValuesIn<Case>({
        {"exact_and_a_longer_partial",
         {{"/a", kExact, 5}, {"/a/b", kPartial, 6}},
         {{5, "/a"}, {6, "/a/b/c"}, {6, "/a/b"}, {-1, "/a/x"}, {-1, "/"}, {-1, "x"}, {1, ""}}},
        {"a_star_within",
         {{"/a*z", kExact, 5}},
         {{5, "/aqqz"}, {5, "/az"}, {5, "/azz"}, {5, "/azqz"}, {-1, "/aqqy"}, {-1, "/azq"}, {-1, "/a"}}},
        {"a_run_of_stars_is_one",
         {{"/a***z", kExact, 5}, {"/b**", kPartial, 6}},
         {{5, "/aqz"}, {-1, "/a*"}, {6, "/bq"}, {6, "/b"}}},
        {"what_the_star_has_passed_is_tried_again",
         {{"/a*bbc*d", kExact, 5}},
         {{5, "/abbbc-d"}, {5, "/abbbbc-dd"}, {-1, "/abb-c-d"}}},
        {"a_partial_rule_with_a_star_is_found_anywhere_behind",
         {{"/a*shop", kPartial, 5}, {"/a", kPartial, 6}},
         {{5, "/a/x/shop/y"}, {6, "/a/x/sho"}}},
        {"parameters_in_any_order",
         {{"/a", kExact, 5, "id=1"}},
         {{5, "/a", "id=1"},
          {5, "/a", "x=2&id=1"},
          {5, "/a", "id=1&x=2"},
          {5, "/a", "id=2&id=1"},
          {-1, "/a", "id=12"},
          {-1, "/a", "xid=1"},
          {-1, "/a", "id=1x&x=id=1"},
          {-1, "/ab", "id=1"},
          {-1, "/a", ""},
          {-1, "/a"}}},
        {"two_parameters_in_their_order",
         {{"/a", kExact, 5, "a=1&b=2"}},
         {{5, "/a", "a=1&b=2"}, {5, "/a", "x&a=1&b=2&c"}, {-1, "/a", "b=2&a=1"}}},
        {"a_name_alone_stands_for_any_value",
         {{"/a", kExact, 5, "id="}},
         {{5, "/a", "id=7"}, {5, "/a", "x=1&id="}, {-1, "/a", "idx=7"}}},
        {"method",
         {{"/a", kExact, 5, "", "GET"}, {"/a", kPartial, 6, "", "PUT"}, {"/a", kPartial, 7, "", "GETS"}},
         {{5, "/a", nullptr, "GET"},
          {-1, "/ab", nullptr, "GET"},
          {6, "/ab", "x=1", "PUT"},
          {-1, "/a", nullptr, "get"},
          {-1, "/a", nullptr, "GE"},
          {-1, "/a", nullptr, ""},
          {-1, "/a"}}},
        {"query_and_method",
         {{"/a", kExact, 5, "id=1", "GET"}, {"/a", kExact, 6, "id=1", "PUT"}, {"/a", kExact, 7, "id=1"}},
         {{5, "/a", "x=1&id=1&y", "GET"},
          {6, "/a", "id=1", "PUT"},
          {7, "/a", "id=1", "POST"},
          {-1, "/a", "id=2", "GET"}}},
        {"a_byte_out_of_range",
         {{"/a", kPartial, 5}, {"/b", kExact, 6, "i=1"}, {"/c", kExact, 7, "", "GET"}, {"/\x7f", kExact, 8}},
         {{-1, "/a\xc8"}, {-1, "\x1f"}, {-1, "/b", "i\xc8&i=1"}, {-1, "/c", nullptr, "G\x01"}, {8, "/\x7f"}}},
    }),
    byName);

// What a single walk without memory of other rules costs.
INSTANTIATE_TEST_SUITE_P(
    Quirks, StateMachine,
    testing::ValuesIn<Case>({
        {"a_longer_rule_behind_the_same_star_hides_a_shorter_one",
         {{"/a*d", kExact, 5}, {"/abcdef", kExact, 6}},
         {{-1, "/abcd"}, {5, "/axd"}}},
        {"a_rule_for_any_url_ends_the_query_at_its_first_strange_character",
         {{"*", kPartial, 3}, {"/a", kPartial, 5, "id=1"}},
         {{5, "/a", "id=1"}, {3, "/a", "x=1&id=1"}}},
        {"without_a_parameter_the_shorter_prefix_comes_before_the_exact_url",
         {{"/", kPartial, 3}, {"/a", kExact, 5, "id=1"}, {"/a", kExact, 6}},
         {{5, "/a", "id=1"}, {3, "/a", "id=2"}, {6, "/a"}}},
        {"a_name_alone_is_found_by_a_value_that_differs_later",
         {{"/a", kExact, 5, "id="}, {"/a", kExact, 6, "id=12"}},
         {{6, "/a", "id=12"}, {5, "/a", "id=13"}, {-1, "/a", "id=1"}}},
        {"a_query_may_be_taken_for_the_end_of_the_url",
         {{"/a*z", kExact, 5}},
         {{5, "/a", "z"}, {-1, "/ab", "z"}}},
        {"a_strange_method_loses_the_shorter_prefix_too",
         {{"/", kPartial, 3}, {"/a", kExact, 5, "id=1", "GET"}},
         {{3, "/a", "id=1", "PUT"}, {-1, "/a", "id=1", "G\x01"}}},
        {"after_a_star_only_partial_rules_have_a_method",
         {{"/a*b", kExact, 5, "", "GET"}, {"/c*d", kPartial, 6, "", "GET"}},
         {{5, "/ab", nullptr, "GET"}, {-1, "/a-b", nullptr, "GET"}, {6, "/c-d", nullptr, "GET"}}},
    }),
    byName);

TEST(StateMachineAdd, WhatIsRefusedLeavesNothing) {
    Machine machine({{"/a", kExact, 5}});
    const std::int32_t states = machine.get()->nextState;
    for (const Rule& rule :
         {Rule{"", kExact, 6}, Rule{"/a*b\x80", kPartial, 6}, Rule{"/\x1f", kPartial, 6},
          Rule{"/a", kPartial, 6, "", "G\xff"}, Rule{std::string(kMachineStatesLimit, 'x'), kPartial, 6}})
        EXPECT_EQ(machine.add(rule), -1) << rule.url.substr(0, 10);
    EXPECT_EQ(vxlb_state_machine_add(machine.get(), "/a", 2, nullptr, 0, 6, kPartial, 2), -1) << "no method";
    EXPECT_EQ(vxlb_state_machine_add(machine.get(), nullptr, 2, nullptr, 0, 6, kPartial, 0), -1);
    EXPECT_EQ(machine.get()->nextState, states);
    EXPECT_EQ(machine.find("/a", "x=1", "GET"), 5);
    EXPECT_EQ(machine.find("/ab"), -1);
}

TEST(StateMachineAdd, WithoutAStartStateNothingIsAddedAndEveryUrlIsOthers) {
    vxlb_state_machine none{};
    EXPECT_EQ(vxlb_state_machine_add(&none, "/a", 2, nullptr, 0, 5, kExact, 0), -1);
    EXPECT_EQ(vxlb_state_machine_add_header(&none, "A=1", 3, 5, kExact), -1);
    EXPECT_EQ(none.states, nullptr);
    EXPECT_EQ(vxlb_state_machine_search(&none, "/a", 2, nullptr, nullptr), 1);
    EXPECT_EQ(vxlb_state_machine_search(nullptr, "/a", 2, nullptr, nullptr), 1);
    Machine empty;
    EXPECT_EQ(empty.find("/a"), -1);
    EXPECT_EQ(vxlb_state_machine_search(empty.get(), nullptr, 2, nullptr, nullptr), 1);
    EXPECT_EQ(vxlb_state_machine_search(empty.get(), "/a", -1, nullptr, nullptr), -1);
}

TEST(StateMachineAdd, TablesGrowWithTheRules) {
    Machine machine({}, 1);
    const std::string tail(250, 't');
    for (int id = 1; id <= 400; ++id) ASSERT_EQ(machine.add({std::to_string(id) + tail, kExact, id}), 0);
    for (int id = 1; id <= 400; ++id) EXPECT_EQ(machine.find(std::to_string(id) + tail), id);
    ASSERT_EQ(vxlb_state_machine_init(machine.get(), 1 << 30), 0);
    EXPECT_EQ(machine.get()->capacity, 65536);
    EXPECT_EQ(machine.find("1" + tail), -1) << "what it held is gone";
}

// From here on: the machine against matchers that try one rule after the other.

class Dice {
public:
    explicit Dice(unsigned seed) : engine_(seed) {}
    int upTo(int most) { return static_cast<int>(engine_() % static_cast<unsigned>(most + 1)); }
    bool one(int in) { return upTo(in - 1) == 0; }
    std::string text(const std::string& alphabet, int least, int most) {
        std::string text(static_cast<std::size_t>(least + upTo(most - least)), ' ');
        for (char& c : text)
            c = alphabet[static_cast<std::size_t>(upTo(static_cast<int>(alphabet.size()) - 1))];
        return text;
    }
    template <class T>
    const T& of(const std::vector<T>& items) {
        return items[static_cast<std::size_t>(upTo(static_cast<int>(items.size()) - 1))];
    }

private:
    std::mt19937 engine_;
};

std::string told(const std::vector<Rule>& rules) {
    std::string text;
    for (const Rule& rule : rules)
        text += "\n  " + std::to_string(rule.id) + (rule.matchType == kPartial ? " partial " : " exact ") +
                rule.pattern() + ' ' + rule.method;
    return text;
}

bool matchesGlob(const char* pattern, const char* text) {
    if (!*pattern) return !*text;
    if (*pattern == '*') return matchesGlob(pattern + 1, text) || (*text && matchesGlob(pattern, text + 1));
    return *pattern == *text && matchesGlob(pattern + 1, text + 1);
}

// Exact before partial, among the partial ones the longest pattern, among equals the one added last. A last
// star adds nothing to an exact rule, and the bare text to a partial one.
int findUrl(const std::vector<Rule>& rules, const std::string& url) {
    int exact = -1, partial = -1;
    std::size_t longest = 0;
    for (const Rule& rule : rules) {
        std::string bare = rule.url;
        while (bare.ends_with('*')) bare.pop_back();
        const bool isPartial = rule.matchType == kPartial;
        if ((!isPartial || bare != rule.url) && matchesGlob(bare.c_str(), url.c_str())) exact = rule.id;
        if (!isPartial || bare.size() < longest || !matchesGlob((bare + "*").c_str(), url.c_str())) continue;
        partial = rule.id;
        longest = bare.size();
    }
    return exact != -1 ? exact : partial;
}

// One rule has stars within, and no other rule goes beyond its first one: see the quirks above.
std::vector<Rule> urlRules(Dice& dice) {
    std::vector<Rule> rules;
    std::string beforeStar = "none";
    int id = 2;
    const bool withStar = dice.one(2);
    if (withStar) {
        beforeStar = dice.text("/ab", 0, 2);
        std::string pattern = beforeStar + "*" + dice.text("/ab", 1, 3);
        if (dice.one(2)) pattern += (dice.one(3) ? "**" : "*") + dice.text("/ab", 1, 2);
        rules.push_back({pattern, dice.upTo(1), id++});
    }
    for (int left = dice.upTo(7); left > 0; --left) {
        std::string url = dice.text("/ab", 1, 5);
        if (url.starts_with(beforeStar) && url != beforeStar) continue;
        if (dice.one(4)) url += '*';
        rules.push_back({url, dice.upTo(1), dice.one(6) ? -2 : id++});
    }
    if (dice.one(4)) rules.push_back({"*", kPartial, id});
    for (std::size_t i = rules.size(); i > 1; --i)
        std::swap(rules[i - 1], rules[static_cast<std::size_t>(dice.upTo(static_cast<int>(i) - 1))]);
    return rules;
}

TEST(StateMachineProperty, UrlsAreFoundAsOneRuleAfterTheOtherWouldFindThem) {
    for (unsigned seed = 1; seed <= 2000 && !testing::Test::HasFailure(); ++seed) {
        Dice dice(seed);
        const std::vector<Rule> rules = urlRules(dice);
        const Machine machine(rules, 1);
        for (int left = 10; left > 0; --left) {
            std::string url = dice.text("/ab", 1, 8);
            if (!rules.empty() && dice.one(2)) {  // one that is near to a rule
                url = dice.of(rules).url;
                for (std::size_t at; (at = url.find('*')) != std::string::npos;)
                    url.replace(at, 1, dice.text("/ab", 0, 3));
                if (dice.one(3)) url += dice.text("/ab", 1, 2);
                if (url.empty()) url = "/";
            }
            EXPECT_EQ(machine.find(url), findUrl(rules, url)) << "seed " << seed << ' ' << url << told(rules);
        }
    }
}

struct Request {
    std::string url;
    bool goesOn;  // behind the URL of a rule
    std::vector<std::string> parameters;
    std::string method;
};

// Among the rules of one URL and one parameter ("" for none): those that ask for the method first, then exact
// before partial, then the one added last. Exact rules have URLs that end there. Of rules that end with the
// "*" behind a parameter a partial one is an exact one, too, so that the last decides.
int findOne(const std::vector<Rule>& rules, const Request& request, const std::string& parameter) {
    for (const bool withMethod : {true, false})
        for (const int matchType : {kExact, kPartial})
            for (auto rule = rules.rbegin(); rule != rules.rend(); ++rule)
                if (rule->url == request.url && rule->query == parameter &&
                    (rule->matchType == matchType || (!withMethod && !parameter.empty())) &&
                    !(rule->matchType == kExact && request.goesOn) && rule->method.empty() != withMethod &&
                    (!withMethod || rule->method == request.method))
                    return rule->id;
    return -1;
}

// The first parameter that has a rule decides.
int findRequest(const std::vector<Rule>& rules, const Request& request, bool byQuery) {
    if (!byQuery) return findOne(rules, request, "");
    for (const std::string& parameter : request.parameters) {
        const int found = parameter.empty() ? -1 : findOne(rules, request, parameter);
        if (found != -1) return found;
    }
    return -1;
}

// URLs, parameters and methods have letters of their own, so that no walk leaves one of them for another.
TEST(StateMachineProperty, QueriesAndMethodsAreFoundAsOneRuleAfterTheOtherWouldFindThem) {
    const std::vector<std::string> methods = {"GET", "PUT", "GETS"};
    for (unsigned seed = 1; seed <= 2000 && !testing::Test::HasFailure(); ++seed) {
        Dice dice(seed);
        const bool byQuery = dice.upTo(2) > 0;
        std::vector<Rule> rules;
        const auto parameter = [&] {
            const std::string name = dice.text("xy", 1, 2);  // one throw after the other, by any compiler
            return name + (dice.one(4) ? "" : "=" + dice.text("12", 1, 2));
        };
        for (int id = 2, left = 1 + dice.upTo(7); left > 0; --left, ++id) {
            Rule rule{dice.text("/ab", 1, 3), dice.upTo(1), dice.one(6) ? -2 : id};
            if (byQuery) rule.query = parameter();
            if (!byQuery || dice.one(2)) rule.method = dice.of(methods);
            rules.push_back(rule);
        }
        const Machine machine(rules, 1);
        for (int left = 10; left > 0; --left) {
            Request request{dice.of(rules).url, dice.one(3), {}, dice.one(5) ? "" : dice.of(methods)};
            for (int count = dice.upTo(3); count > 0; --count)
                request.parameters.push_back(dice.one(2) ? dice.of(rules).query : parameter());
            std::string query;
            for (const std::string& each : request.parameters) query += (query.empty() ? "" : "&") + each;
            const std::string url = request.url + (request.goesOn ? dice.text("-", 1, 3) : "");
            EXPECT_EQ(machine.find(url, query.c_str(), request.method.c_str()),
                      findRequest(rules, request, byQuery))
                << "seed " << seed << ' ' << url << '?' << query << ' ' << request.method << told(rules);
        }
    }
}

}  // namespace
}  // namespace vx::test
