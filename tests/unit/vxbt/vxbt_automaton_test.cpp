#include "commonlibc/vxbt/vxbt_automaton.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace vx::test {
namespace {

struct Word {
    std::string keyword;
    int constraint;
    int priority = 1;
    std::string btName = "";  // the keyword where it is empty
};

// The lexicon of some words and its automaton.
class Rules {
public:
    explicit Rules(const std::vector<Word>& words) : rule_(std::make_unique<VXBTCustomeRule>()) {
        for (const Word& word : words) EXPECT_EQ(add(word), 0) << word.keyword;
        EXPECT_GE(vxlb_init_automaton(&machine_, rule_.get()), 1);
    }
    ~Rules() { vxlb_free_automaton(&machine_); }
    Rules(const Rules&) = delete;
    Rules& operator=(const Rules&) = delete;

    int add(const Word& word) {
        return add_to_lexicon(rule_.get(), word.keyword.c_str(), word.priority,
                              (word.btName.empty() ? word.keyword : word.btName).c_str(),
                              static_cast<std::uint8_t>(word.constraint));
    }
    std::string find(const std::string& text) const {
        const char* name = search_match_machine(text.c_str(), &machine_, rule_.get());
        return name ? name : "none";
    }
    VXBTCustomeRule& rule() { return *rule_; }
    vxlbTrie& machine() { return machine_; }

private:
    std::unique_ptr<VXBTCustomeRule> rule_;
    vxlbTrie machine_{};
};

TEST(Automaton, Keyword33SharesTheBitOfTheFirst) {
    std::vector<Word> words = {{"ab", 0, 1, "first"}};
    for (int i = 1; i < 32; ++i) words.push_back({"filler" + std::to_string(i), 3});
    words.push_back({"xyz", 2, 1, "33rd"});
    const Rules rules(words);
    EXPECT_EQ(rules.find("a_xyz"), "33rd");
    EXPECT_EQ(rules.find("__ab"), "33rd") << "where the first ends, its length and constraint are tested";
    EXPECT_EQ(rules.find("ab_") + rules.find("b"), "nonenone");
}

TEST(Automaton, RefusesWhatItsLexiconCannotHold) {
    Rules rules({{"ab", 3}});
    for (const char* keyword : {"", "a\x1f", "a\x7f", "\xc3\xa4"})
        EXPECT_EQ(rules.add({keyword, 3}), -1) << keyword;
    for (int i = 1; i < 40; ++i)
        EXPECT_EQ(rules.add({std::string(300, 'k'), 1, 1, std::string(200, 'n')}), 0);
    EXPECT_EQ(rules.add({"one more", 3}), -1);
    ASSERT_EQ(vxlb_init_automaton(&rules.machine(), &rules.rule()), 1 + 2 + 256);
    EXPECT_EQ(rules.find(std::string(256, 'k')), std::string(128, 'n'));

    vxlb_build_lexicon(&rules.rule());
    EXPECT_EQ(rules.add({"cd", 3}), 0);
    ASSERT_EQ(vxlb_init_automaton(&rules.machine(), &rules.rule()), 3);
    EXPECT_EQ(rules.find("xabcd"), "cd");
    EXPECT_EQ(vxlb_init_automaton(&rules.machine(), nullptr), -1);
    EXPECT_EQ(rules.find("xabcd"), "none") << "no machine";
}

bool counts(const Word& word, std::size_t at, std::size_t textLength) {
    switch (word.constraint) {
        case 1:
            return at == 0;
        case 2:
            return at + word.keyword.size() == textLength;
        case 3:
            return at > 0;
        case 4:
            return word.keyword.size() == textLength;
        default:
            return false;
    }
}

// Looks for one keyword after the other at each place.
std::string findByHand(const std::vector<Word>& words, const std::string& text) {
    const Word* best = nullptr;
    for (std::size_t end = 1; end <= text.size(); ++end)
        for (const Word& word : words) {
            if (word.keyword.size() > end) continue;
            const std::size_t at = end - word.keyword.size();
            if (text.compare(at, word.keyword.size(), word.keyword) != 0) continue;
            if (counts(word, at, text.size()) && word.priority >= (best ? best->priority : 0)) best = &word;
        }
    return best ? best->btName : "none";
}

TEST(Automaton, FindsWhatOneKeywordAfterTheOtherWouldFind) {
    for (unsigned seed = 1; seed <= 1500 && !testing::Test::HasFailure(); ++seed) {
        std::mt19937 engine(seed);
        const auto upTo = [&](unsigned most) { return static_cast<int>(engine() % (most + 1)); };
        const auto text = [&](const char* alphabet, int length) {
            std::string made;
            while (length-- > 0) made += alphabet[upTo(static_cast<unsigned>(std::strlen(alphabet)) - 1)];
            return made;
        };
        std::vector<Word> words;
        for (int left = upTo(32); left > 0; --left)
            words.push_back({text("ab ~", 1 + upTo(4)), upTo(5), upTo(4) - 1, "bt" + std::to_string(left)});
        const Rules rules(words);
        for (int left = 10; left > 0; --left) {
            const std::string asked = text("aaabbb ~\x01\x7f\xc8", upTo(12));
            EXPECT_EQ(rules.find(asked), findByHand(words, asked)) << "seed " << seed << ' ' << asked;
        }
    }
}

}  // namespace
}  // namespace vx::test
