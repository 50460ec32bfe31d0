#include "commonlibc/vxbt/vxbt_thresholds.h"

#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

class Thresholds : public KnowledgeFixture {
protected:
    std::string of(const std::string& name) {
        const BTObject* object = btOf(name);
        return std::to_string(object->slowThreshold) + "/" + std::to_string(object->verySlowThreshold) +
               (object->ownThresholds ? " own" : "");
    }
};

TEST_F(Thresholds, OfANameCountWheneverARuleDeclaresIt) {
    thresholdsAre(
        "\xEF\xBB\xBF"
        "A|10|20\nUnknown|1|2\nlater|30|40");
    rulesAre("7|A|2|0|/a|0\n7|B|3|0|/b|0\n7|Zero|0|0|/z|0");
    EXPECT_EQ(of("A"), "10/20 own");
    EXPECT_EQ(of("B"), "3000/5000");
    EXPECT_EQ(of("Unknown"), "3000/5000") << "no rule declares it";

    rulesAre("7|later|4|0|/l|0");
    EXPECT_EQ(of("later"), "30/40 own");

    app->Server.instrumentationStarted = 1;
    app->data.data_thread_running = 1;
    thresholdsAre("B|5|6\nA|11|21\nZero|7|8\nall|100|200");
    EXPECT_EQ(of("A") + " " + of("B"), "11/21 own 5/6 own");
    EXPECT_EQ(of("Zero"), "7/8 own") << "declared without an id";
    EXPECT_EQ(of("later"), "100/200") << "no longer named: the pair for all";
    EXPECT_EQ(of("new"), "100/200");
    rulesAre("7|A|9|0|/a|0\n7|later|4|0|/l|0");
    EXPECT_EQ(of("A"), "11/21 own") << "a rule while connected leaves them";
    EXPECT_EQ(find_bt_obj_in_manager_map("B")->btId, 3) << "no line changes an id";
}

TEST_F(Thresholds, BadLinesHaveNoEffect) {
    rulesAre("7|A|2|0|/a|0");
    for (const char* bad : {"ALL|200|100", "ALL|100|100", "ALL|0|100", "ALL|100", "ALL|100|200|", "#ALL|1|2",
                            "", "||", "A|x|y"}) {
        thresholdsAre(std::string(bad) + "\nA|7|8\n" + bad);
        EXPECT_EQ(of("A") + " " + of("/other"), "7/8 own 3000/5000") << bad;
    }
    EXPECT_EQ(vxbt_read_threshold_file(nullptr, VXRuleSource::kText), -1);
    EXPECT_EQ(vxbt_read_threshold_file("", VXRuleSource::kPath), -1);
    EXPECT_EQ(of("A"), "7/8 own");
    EXPECT_EQ(vxbt_read_threshold_file("/no/such/file", VXRuleSource::kPath), 0);
    EXPECT_EQ(of("A"), "3000/5000") << "a file that is not there names nobody";
    thresholdsAre("A|99999999998|99999999999\nALL|1|99999999999");
    EXPECT_EQ(of("A"), "3000/5000") << "one that a number cannot hold is none";
    EXPECT_EQ(app->bt.allVerySlowThreshold, 2147483647);
}

}  // namespace
}  // namespace vx::test
