#include "commonlibc/vxbt/vxbt_state_machine.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

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

TEST(StateMachine, Finds) {
    const struct {
        const char* name;
        std::vector<Rule> rules;
        std::vector<Ask> asks;
    } rows[] = {
        {"no url at all", {{"/a", kPartial, 5}}, {{1, ""}}},
        {"parameters in any order",
         {{"/a", kExact, 5, "id=1"}},
         {{5, "/a", "x=2&id=1"}, {-1, "/a", "xid=1"}, {-1, "/a", "id=1x&x=id=1"}, {-1, "/ab", "id=1"}}},
        {"of rules for one parameter the last, be it exact or partial, and the method first",
         {{"/a", kPartial, 5, "id=1"},
          {"/a", kExact, 6, "id=1"},
          {"/a", kPartial, 7, "id=2"},
          {"/a", kPartial, 8, "id=1", "PUT"}},
         {{6, "/a", "id=1", "GET"}, {7, "/a", "id=2&id=1"}, {8, "/a", "id=1", "PUT"}, {5, "/ab", "id=1"}}},
        {"two parameters in their order",
         {{"/a", kExact, 5, "a=1&b=2"}},
         {{5, "/a", "x&a=1&b=2&c"}, {-1, "/a", "b=2&a=1"}}},
        {"a name alone stands for any value",
         {{"/a", kExact, 5, "id="}},
         {{5, "/a", "id=7"}, {5, "/a", "x=1&id="}, {-1, "/a", "idx=7"}}},
        {"method",
         {{"/a", kExact, 5, "", "GET"}, {"/a", kPartial, 6, "", "PUT"}, {"/a", kPartial, 7, "", "GETS"}},
         {{5, "/a", nullptr, "GET"}, {6, "/ab", "x=1", "PUT"}, {-1, "/a", nullptr, "get"}, {-1, "/a"}}},
        {"a byte out of range",
         {{"/a", kPartial, 5}, {"/b", kExact, 6, "i=1"}, {"/c", kExact, 7, "", "GET"}, {"/\x7f", kExact, 8}},
         {{-1, "/a\xc8"}, {-1, "\x1f"}, {-1, "/b", "i\xc8&i=1"}, {-1, "/c", nullptr, "G\x01"}, {8, "/\x7f"}}},
        // What a single walk without memory of other rules costs.
        {"a longer rule behind the same star hides a shorter one",
         {{"/a*d", kExact, 5}, {"/abcdef", kExact, 6}},
         {{-1, "/abcd"}, {5, "/axd"}}},
        {"a rule for any url ends the query at its first strange character",
         {{"*", kPartial, 3}, {"/a", kPartial, 5, "id=1"}},
         {{5, "/a", "id=1"}, {3, "/a", "x=1&id=1"}}},
        {"without a parameter the shorter prefix comes before the exact url",
         {{"/", kPartial, 3}, {"/a", kExact, 5, "id=1"}, {"/a", kExact, 6}},
         {{5, "/a", "id=1"}, {3, "/a", "id=2"}, {6, "/a"}}},
        {"a strange method loses the shorter prefix too",
         {{"/", kPartial, 3}, {"/a", kExact, 5, "id=1", "GET"}},
         {{3, "/a", "id=1", "PUT"}, {-1, "/a", "id=1", "G\x01"}}},
        {"after a star only partial rules have a method",
         {{"/a*b", kExact, 5, "", "GET"}, {"/c*d", kPartial, 6, "", "GET"}},
         {{5, "/ab", nullptr, "GET"}, {-1, "/a-b", nullptr, "GET"}, {6, "/c-d", nullptr, "GET"}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Machine machine(row.rules);
        for (const Ask& ask : row.asks)
            EXPECT_EQ(machine.find(ask.url, ask.query, ask.method), ask.expected)
                << ask.url << " query " << (ask.query ? ask.query : "-");
    }
}

TEST(StateMachine, WhatIsRefusedLeavesNothing) {
    Machine machine({{"/a", kExact, 5}});
    const std::int32_t states = machine.get()->nextState;
    for (const Rule& rule :
         {Rule{"", kExact, 6}, Rule{"/a*b\x80", kPartial, 6}, Rule{"/\x1f", kPartial, 6},
          Rule{"/a", kPartial, 6, "", "G\xff"}, Rule{std::string(kMachineStatesLimit, 'x'), kPartial, 6}})
        EXPECT_EQ(machine.add(rule), -1) << rule.url.substr(0, 10);
    EXPECT_EQ(vxlb_state_machine_add(machine.get(), "/a", 2, nullptr, 0, 6, kPartial, 2), -1) << "no method";
    EXPECT_EQ(machine.get()->nextState, states);
    EXPECT_EQ(machine.find("/a", "x=1", "GET"), 5);
    EXPECT_EQ(machine.find("/ab"), -1);
}

TEST(StateMachine, TablesGrowWithTheRules) {
    Machine machine({}, 1);
    const std::string tail(250, 't');
    for (int id = 1; id <= 400; ++id) ASSERT_EQ(machine.add({std::to_string(id) + tail, kExact, id}), 0);
    for (int id = 1; id <= 400; ++id) EXPECT_EQ(machine.find(std::to_string(id) + tail), id);
    ASSERT_EQ(vxlb_state_machine_init(machine.get(), 1 << 30), 0);
    EXPECT_EQ(machine.get()->capacity, 65536);
    EXPECT_EQ(machine.find("1" + tail), -1) << "what it held is gone";
}

// From here on: the machine against a matcher that tries one rule after the other.

class Dice {
public:
    explicit Dice(unsigned seed) : engine_(seed) {}
    int upTo(int most) { return static_cast<int>(engine_() % static_cast<unsigned>(most + 1)); }
    bool one(int in) { return upTo(in - 1) == 0; }
    std::string url(int least, int most) {
        std::string text(static_cast<std::size_t>(least + upTo(most - least)), ' ');
        for (char& c : text) c = "/ab"[upTo(2)];
        return text;
    }

private:
    std::mt19937 engine_;
};

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
        beforeStar = dice.url(0, 2);
        std::string pattern = beforeStar + "*" + dice.url(1, 3);
        if (dice.one(2)) pattern += (dice.one(3) ? "**" : "*") + dice.url(1, 2);
        rules.push_back({pattern, dice.upTo(1), id++});
    }
    for (int left = dice.upTo(7); left > 0; --left) {
        std::string url = dice.url(1, 5);
        if (url.starts_with(beforeStar) && url != beforeStar) continue;
        if (dice.one(4)) url += '*';
        rules.push_back({url, dice.upTo(1), dice.one(6) ? -2 : id++});
    }
    if (dice.one(4)) rules.push_back({"*", kPartial, id});
    for (std::size_t i = rules.size(); i > 1; --i)
        std::swap(rules[i - 1], rules[static_cast<std::size_t>(dice.upTo(static_cast<int>(i) - 1))]);
    return rules;
}

TEST(StateMachine, UrlsAreFoundAsOneRuleAfterTheOtherWouldFindThem) {
    for (unsigned seed = 1; seed <= 2000 && !testing::Test::HasFailure(); ++seed) {
        Dice dice(seed);
        const std::vector<Rule> rules = urlRules(dice);
        const Machine machine(rules, 1);
        for (int left = 10; left > 0; --left) {
            std::string url = dice.url(1, 8);
            if (!rules.empty() && dice.one(2)) {  // one that is near to a rule
                url = rules[static_cast<std::size_t>(dice.upTo(static_cast<int>(rules.size()) - 1))].url;
                for (std::size_t at; (at = url.find('*')) != std::string::npos;)
                    url.replace(at, 1, dice.url(0, 3));
                if (dice.one(3)) url += dice.url(1, 2);
                if (url.empty()) url = "/";
            }
            EXPECT_EQ(machine.find(url), findUrl(rules, url)) << "seed " << seed << ' ' << url;
        }
    }
}

}  // namespace
}  // namespace vx::test
