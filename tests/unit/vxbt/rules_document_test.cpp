// The examples of docs/rules.md, executed: a block of rules, thresholds or errors configures, the block
// behind it says what becomes of requests.
#include <fstream>
#include <sstream>
#include <string>

#include "commonlibc/ServerErrorRules.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/vxbt/vxbt_rule_execute.h"
#include "commonlibc/vxbt/vxbt_thresholds.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

class RulesDocument : public KnowledgeFixture {
protected:
    void request(const std::string& what, const std::string& expected) {
        std::istringstream in(what);
        std::string method, url, header;
        in >> method >> url >> header;
        const VXUrlParts parts = vxSplitUrl(url);
        if (!header.empty()) header = header.substr(1, header.size() - 2);
        const BTObject* bt = get_obj_from_bt_name(
            std::string(parts.path).c_str(), std::string(parts.query).c_str(),
            header.empty() ? nullptr : header.data(), app->flowpath.poolMutex, method.c_str());
        EXPECT_EQ(bt ? bt->btName : "excluded", expected) << what;
        ++requests;
    }
    void duration(const std::string& what, const std::string& expected) {
        const std::string name = what.substr(0, what.find(' '));
        std::uint8_t captured = 0;
        const BTObject* bt = btOf(name);
        const int category = findCategoryOfBT(*bt, std::stoi(what.substr(name.size())), 200, &captured);
        EXPECT_EQ(category == kCategoryNormal ? "normal"
                  : category == kCategorySlow ? "slow"
                                              : "very slow",
                  expected)
            << what;
    }
    void status(const std::string& what, const std::string& expected) {
        std::uint8_t captured = 0;
        const int category = findCategoryOfBT(*btOf("x"), 1, std::stoi(what), &captured);
        EXPECT_EQ(category == kCategoryError ? "error" : "fine", expected) << what;
    }
    // A fenced block of a kind.
    void take(const std::string& kind, const std::string& text) {
        if (kind == "rules") {
            TearDown();
            SetUp();
            vxbt_read_rule_file(text.c_str(), VXRuleSource::kText);
            lastRules = text;
            ++rules;
        } else if (kind == "thresholds") {  // a start reads them before the rules
            TearDown();
            SetUp();
            vxbt_read_threshold_file(text.c_str(), VXRuleSource::kText);
            vxbt_read_rule_file(lastRules.c_str(), VXRuleSource::kText);
        } else if (kind == "errors") {
            parseBtError(text.c_str());
        } else {
            eachLine(kind, text);
        }
    }
    void eachLine(const std::string& kind, const std::string& text) {
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            const std::size_t arrow = line.find(" -> ");
            ASSERT_NE(arrow, std::string::npos) << line;
            const std::string what = line.substr(0, arrow), expected = line.substr(arrow + 4);
            if (kind == "requests") {
                request(what, expected);
            } else if (kind == "durations") {
                duration(what, expected);
            } else {
                ASSERT_EQ(kind, "statuses");
                status(what, expected);
            }
        }
    }

    std::string lastRules;
    int rules = 0, requests = 0;
};

TEST_F(RulesDocument, EveryExampleDoesWhatItSays) {
    std::ifstream in(VX_SOURCE_DIR "/docs/rules.md");
    std::string kind, text;
    for (std::string line; std::getline(in, line);) {
        if (!line.starts_with("```")) {
            if (!kind.empty()) text += line + "\n";
            continue;
        }
        if (!kind.empty()) {
            SCOPED_TRACE(text);
            take(kind, text);
        }
        kind = line.substr(3);
        text.clear();
    }
    EXPECT_GT(rules, 15);
    EXPECT_GT(requests, 40);
}

}  // namespace
}  // namespace vx::test
