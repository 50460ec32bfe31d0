#include "commonlibc/vxbt/vxbt_rule_parser.h"

#include <atomic>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/vxbt/vxbt_rule_execute.h"
#include "commonlibc/vxlb_mem_hook.h"
#include "tests/support/knowledge_fixture.h"
#include "tests/support/temp_dir.h"

namespace vx::test {
namespace {

class RuleTexts : public KnowledgeFixture {
protected:
    std::string nameOf(const std::string& url, std::string header = "") {
        const VXGuard decode(app->decoder.decodeMutex);
        const BTObject* object = get_obj_from_bt_name(
            url.c_str(), nullptr, header.empty() ? nullptr : header.data(), nullptr, nullptr);
        return object ? object->btName : "(excluded)";
    }
    // What became of each line of a text, by number; an empty fault: it has its effect.
    std::map<int, std::string> faultsOf(const std::string& text) {
        std::map<int, std::string> faults;
        vxbt_read_rule_file(
            text.c_str(), VXRuleSource::kText, VXRuleBuild::Base::kInForce,
            [](const VXRuleLine& line, void* all) {
                auto& told = *static_cast<std::map<int, std::string>*>(all);
                EXPECT_TRUE(told.emplace(line.number, line.fault ? line.fault : "").second) << line.text;
            },
            &faults);
        return faults;
    }
    std::string tagsOf(const BTTagArray* list) {
        std::string text;
        for (; list; list = list->next)
            text += std::string(list->key) + "/" + std::to_string(list->type) + "/" + list->tagField + "/" +
                    (list->resolvedValue ? list->resolvedValue : "-") + ";";
        return text;
    }
    std::string tagsOfBt(std::int32_t id) {
        const VXBTTags& tags = app->bt.ruleSet.load()->tags;
        return id < tags.size ? tagsOf(tags.perBt[id]) : "";
    }
};

// What docs/rules.md leaves open; its examples are tests, too.
TEST_F(RuleTexts, NameTheBt) {
    const struct {
        const char* text;
        std::int32_t applicable;
        const char *url, *bt;
        const char* header = "";
    } rows[] = {
        {"1|1|n|d|x|-|-|-|-\n7|A|2|0|/a|0", kPatternRule, "/a", "A"},
        {"1|1|n|d|x|-|-|-|-\n7|A|2|0|/a", kGlobalRule, "/a/b/c", "/a/b/c"},  // no pattern line is good
        {"1|2|n|d|FromFirst|1|-|-|-\n1|1|n|d|x|-|-|-|-", kGlobalRule, "/a/b", "/a"},
        {"", kNoRule, "/a/b/c", "/a/b"},
        {"7|A|2|0|/a|0\r\n7|B|3|1|/b|0|0|-|-|-\r\n", kPatternRule, "/b/c", "B"},
        {"#7|C|9|0|/a|0\n9|x\n10|y\n3|z\n7|A|2|0|/a|0", kPatternRule, "/a", "A"},
        {"7|A|2|257|/a|0", kPatternRule, "/a/b", "A"},  // the match type is a byte
        {"7|A|2|2|/a|0", kPatternRule, "/a/b", "Others"},
        {"7|A|2|0|/a|0|9|id=1|GET", kPatternRule, "/a", "A"},  // an unknown mode asks for the URL alone
        {"7|A|2|0|/a|0\n7|H|4|0|/h|0|0|-|-|Shop=eu|-", kPatternRule, "/h", "H"},
        {"7|H|4|0|/h|1|0|-|-|Shop=eu|-", kPatternRule, "/h", "(excluded)", "Shop=eu"},
        {"5|1\n7|A|2|0|/a/very/long/way/to/the/end|0", kPatternRule, "/a/very/long/way/to/the/end", "A"},
        {"1|1|n|d|x|-|-|-|-\n2|2|r|Pay|-|1|5|[input1=endswith&&input2=/pay]|-", kGlobalRule, "/shop/pay",
         "Pay"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        TearDown();
        SetUp();
        rulesAre(row.text);
        EXPECT_EQ(app->bt.applicableRule, row.applicable);
        EXPECT_EQ(nameOf(row.url, row.header), row.bt);
    }
}

TEST_F(RuleTexts, ABadLineIsToldAndCostsNoOther) {
    const std::string good = "7|Good|5|0|/good|0\n";
    std::istringstream badLines(
        "7|\n7|A|2|0|/a\n7|A|65536|0|/a|0\n7|A|99999999999999|0|/a|0\n7|A|2|0|/a|0|2|-\n"
        "7|A|2|0|/a|0|3|id=1\n7|A|2|0||0\n7|A|2|0|/a|0|2|-|\n7|A|2|0|/\x01|0\n"
        "7|A|2|0|/a|0|0|-|-|Shop=\xFF|-\n8|x\n3|x\nhello\n|\n5|0\n5|9999999999\n2|1|r|n|-|1|5|GET\n"
        "2|1|r|n|-|1|5|GET|-|-\n2|1|r|n|-|1|5||-\n2|1|r|n|-|1|5|FETCH|-\n2|9|r|n|-|1|5|GET|-\n"
        "2|2|r|n|-|1|5|[input1=contains]|-\n2|2|r|n|-|1|5|nothing|-\n2|3|r|n|-|1|5|[input1=]|-\n"
        "2|2|r|n|-|1|5|[input1=contains&&input2=\xC3\xA9]|-\n1|1|n|d|x|-|-|-\nno rule\n");
    for (std::string bad; std::getline(badLines, bad);) {
        const auto faults = faultsOf(bad + "\n" + good + bad + "\n");
        ASSERT_EQ(faults.size(), 3U) << bad;
        EXPECT_NE(faults.at(1), "") << bad;
        EXPECT_EQ(faults.at(2), "") << bad;
        EXPECT_NE(faults.at(3), "") << bad;
        EXPECT_EQ(nameOf("/good"), "Good") << bad;
        EXPECT_EQ(app->bt.ruleSet.load()->customRule.lexiconCount, 0) << bad;
        EXPECT_EQ(nameOf("/other"), "Others") << bad;
    }
    EXPECT_EQ(faultsOf("1|1|x\n").at(1), "fewer than 9 fields, the default rule stands in");
    EXPECT_EQ(nameOf("/a/b/c"), "/a/b");
}

TEST_F(RuleTexts, DeclareTheirBtsByIdAndExclusionsNone) {
    rulesAre("7|A|2|0|/a|0|0|-|-|-|-|-|17|-|-\n7|Gone|9|0|/g|1\n7|Zero|0|0|/z|0\n7|Top|65535|0|/t|0");
    const auto inConfig = [&](const char* name) {
        return static_cast<BTObject*>(search_hashmap(name, app->bt.configMap));
    };
    const BTObject* a = inConfig("A");
    ASSERT_NE(a, nullptr);
    EXPECT_TRUE(a->btId == 2 && a->selfId == 17 && a->parentId == -1);
    EXPECT_EQ(inConfig("Gone"), nullptr);
    EXPECT_EQ(nameOf("/z") + nameOf("/t"), "OthersTop") << "0 is no id, 65535 is one";
    EXPECT_EQ(find_bt_obj_in_manager_map("Others")->btId, kBtIdOthers);
    EXPECT_EQ(vxAggSlot(app->bt.aggDataArr, 9)->btObj, nullptr);

    rulesAre("7|A|3|0|/a|0\n7|A|0|0|/a2|0\n7|B|2|0|/b|0");
    EXPECT_EQ(inConfig("A"), a) << "objects stay";
    EXPECT_EQ(a->btId, 3) << "no id is no change of the id";
    EXPECT_EQ(nameOf("/a") + nameOf("/b"), "AB");
    EXPECT_EQ(nameOf("/t"), "Others") << "the former rules are gone";
}

TEST_F(RuleTexts, ARunTimeChangeTellsTheNamesAnew) {
    rulesAre("7|A|2|0|/a|0\n7|B|3|0|/b|0");
    btOf("seen");
    clearDumped(*app);
    app->Server.runtimeChange = 1;
    rulesAre("7|B|40|0|/b|0\n7|C|3|0|/c|0");
    EXPECT_EQ(dumpedText(*app), "11,7\n7,1,Others\n7,40,B\n7,3,C\n") << "only what the new text names";

    clearDumped(*app);
    rulesAre("7|X|2\n");
    EXPECT_EQ(dumpedText(*app), "") << "a text without a good line changes no name";
    EXPECT_EQ(app->bt.applicableRule, kNoRule);

    rulesAre("1|1|n|d|x|-|-|-|-");
    app->Server.runtimeChange = 0;
    EXPECT_EQ(nameOf("seen"), "seen");
    EXPECT_EQ(dumpedText(*app), "11,7\n7,4,seen\n");
}

TEST_F(RuleTexts, CustomRulesAddUpUntilAStartAndFillTheLexicon) {
    const auto count = [&] { return app->bt.ruleSet.load()->customRule.lexiconCount; };
    rulesAre("2|2|r|One|-|1|5|[input1=contains&&input2=one]|-");
    rulesAre("2|3|r|Two|-|0|-1|[input1=value],[x&&input2=two],[x&&x&&input3=EQUALS],[x&&x&&x&&input4=2]|-");
    EXPECT_EQ(count(), 3);
    EXPECT_EQ(nameOf("/one"), "One");

    std::string many;
    for (int i = 0; i < 36; ++i)
        many += "2|2|r|Many|-|1|5|[input1=contains&&input2=m" + std::to_string(i) + "]|-\n";
    const auto faults = faultsOf(many +
                                 "2|3|r|Two|-|1|5|[input2=a],[x&&input3=EQUALS],[x&&x&&input4=b]|-\n"
                                 "2|3|r|Last|-|1|5|[input2=c],[x&&input3=EQUALS]|-\n"
                                 "2|3|r|More|-|1|5|[input2=d],[x&&input3=EQUALS]|-\n");
    EXPECT_NE(faults.at(37).find("a stop and start"), std::string::npos)
        << "room for one of its two keywords";
    EXPECT_EQ(faults.at(38), "");
    EXPECT_NE(faults.at(39).find("a stop and start"), std::string::npos);
    EXPECT_EQ(count(), 40);

    VXBTConfigModelInit();
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(nameOf("/one/two/three"), "/one/two");
}

TEST_F(RuleTexts, TagsFollowTheirLines) {
    rulesAre("7|A|2|0|/a|0|x%200%20one&bad&y%201%20req&z%20%20q\n7|B|300|0|/b|0|k%200%20v%20w");
    EXPECT_EQ(tagsOfBt(2), "x/0/one/one;y/1/req/-;");
    EXPECT_EQ(tagsOfBt(300), "k/0/v%20w/v%20w;");
    rulesAre("7|A|2|0|/a|0|-\n7|N|0|0|/n|0|n%200%201\n7|C|5|0|/c|0|q%200%201\n7|C|5|0|/d|0|r%200%202");
    EXPECT_EQ(tagsOfBt(2) + tagsOfBt(0) + tagsOfBt(1), "");
    EXPECT_EQ(tagsOfBt(5), "r/0/2/2;") << "the last line of an id";
    EXPECT_EQ(tagsOfBt(300), "k/0/v%20w/v%20w;") << "a text leaves what it does not name";

    setRule("1|1|n|d|x|-|-|-|g%200%20top&r%200%20taken&g%200%20again");
    EXPECT_EQ(tagsOf(app->bt.ruleSet.load()->tags.global), "g/0/top/top;");
    rulesAre("7|A|2|0|/a|0|g%200%20one&" + std::string(300, 'k') + "%200%20" + std::string(300, 'v'));
    EXPECT_EQ(tagsOfBt(2),
              std::string(254, 'k') + "/0/" + std::string(300, 'v') + "/" + std::string(254, 'v') + ";");
    EXPECT_EQ(app->bt.ruleSet.load()->tags.count, 4);
    setRule("1|1|n|d|x|-|-|-|-");
    EXPECT_EQ(app->bt.ruleSet.load()->tags.global, nullptr);
}

TEST_F(RuleTexts, ComeFromFilesReadWhole) {
    const TempDir folder;
    const std::string path = folder.path() + "/rules";
    const auto write = [&](const std::string& text) { std::ofstream(path, std::ios::binary) << text; };
    const auto read = [&](const std::string& at) { vxbt_read_rule_file(at.c_str(), VXRuleSource::kPath); };
    write(
        "\xEF\xBB\xBF"
        "7|M|2|0|/m|0\n7|N|3|0|/n|0");
    read(path);
    EXPECT_EQ(nameOf("/m"), "M") << "behind the mark of an editor";
    write(std::string(3000, '#') + "\n" + "7|" + std::string(1100, 'n') + "|2|0|/a|0\n7|B|3|0|/b|0");
    read(path);
    EXPECT_EQ(nameOf("/b"), "B");
    EXPECT_EQ(nameOf("/a"), "Others") << "cut behind 1,023 characters";

    const std::string whole = "7|C|4|0|/c|0\n", full = std::string(kMaxRuleText - whole.size() - 1, '#');
    write(full + "\n" + whole);
    read(path);
    EXPECT_EQ(nameOf("/c"), "C") << "1 MB";
    rulesAre(full + "##\n" + whole);
    EXPECT_EQ(nameOf("/c"), "C") << "a text too long changes nothing";
    write(full + "##\n" + whole);
    char* text = nullptr;
    for (const std::string& bad : {path, folder.path()})
        EXPECT_TRUE(getLineFromFile(bad.c_str(), &text) == -1 && !text) << bad;
    read(folder.path() + "/none");
    EXPECT_EQ(app->bt.applicableRule, kNoRule);
}

int allocationsLeft;
bool ranOut;
bool takeAllocation(std::size_t) {
    if (--allocationsLeft < 0) ranOut = true;
    return !ranOut;
}

TEST_F(RuleTexts, WithoutMemoryLeaveWhatIsInForceWhole) {
    const std::string texts[] = {
        "7|New|3|0|/y|0|0|-|-|Shop=eu|t%200%202&u%201%203\n7|Old|500|0|/x/y/z|0|0|-|-|B=1|v%200%204\n",
        "1|1|n|d|x|-|-|-|g%200%20v\n2|2|r|Custom|-|1|5|[input1=contains&&input2=/x]|-\n",
    };
    const std::string before = "7|Old|2|0|/x|0|0|-|-|-|t%200%201";
    for (const std::string& text : texts) {
        rulesAre(before);
        const auto tags = [&] { return tagsOfBt(2) + tagsOfBt(3) + tagsOfBt(500); };
        const std::string tagsBefore = tags();
        int budget = 0;
        do {
            allocationsLeft = budget++;
            ranOut = false;
            vxlb_set_allocation_hook(takeAllocation);
            rulesAre(text);
            vxlb_set_allocation_hook(nullptr);
            if (!ranOut) break;
            ASSERT_EQ(nameOf("/x") + nameOf("/y"), "OldOthers") << budget;
            ASSERT_EQ(find_bt_obj_in_manager_map("Old")->btId, 2) << budget;
            ASSERT_EQ(tags(), tagsBefore) << budget;
            ASSERT_EQ(app->bt.ruleSet.load()->customRule.lexiconCount, 0) << budget;
        } while (budget < 200);
        EXPECT_GT(budget, 3);
        EXPECT_NE(nameOf("/x"), "Old") << "with memory it is in force";
    }
}

// The same URL under two rule sets that differ in everything: a lookup sees the one or the other, never both
// and never neither.
TEST_F(RuleTexts, AreSwappedWholeUnderLookups) {
    const std::string texts[] = {
        "7|One|2|0|/x|0|0|-|-|Shop=eu|t%200%201\n7|Two|3|1|/y|0\n",
        "7|Two|2|0|/q|0|0|-|-|-|-\n7|One|3|0|/x|0\n7|More|300|0|/y|0\n",
        "1|2|n|d|FromFirst|1|-|-|g%200%20v\n2|2|r|Custom|-|1|5|[input1=startswith&&input2=/nothing]|-\n",
        "7|Ex|9|0|/x|1|0|-|-|-|-\n7|Two|4|1|/y|0\n",
    };
    rulesAre(texts[0]);
    std::atomic<bool> done{false};
    std::atomic<int> lookups{0}, wrong{0};
    std::thread traffic([&] {
        vxSetCurrent(app);
        while (!done) {
            char headers[] = "A=1&Shop=eu";
            const VXGuard decode(app->decoder.decodeMutex);
            const BTObject* object = get_obj_from_bt_name("/x", "a=1", headers, nullptr, "GET");
            const std::string name = object ? object->btName : "";
            if (name != "One" && name != "" && name != "others") ++wrong;
            ++lookups;
        }
    });
    for (int i = 0; i < 400 || lookups < 50; ++i) {
        app->Server.runtimeChange = i % 3 == 0;
        rulesAre(texts[i % 4]);
        thresholdsAre(i % 2 ? "One|10|20\nALL|100|200" : "Two|10|20");
    }
    done = true;
    traffic.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace vx::test
