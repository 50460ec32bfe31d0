// The examples of docs/rules.md, executed: a block of rules, thresholds or errors configures, the block
// behind it says what becomes of requests.
#include <fstream>
#include <sstream>
#include <string>

#include "commonlibc/ServerErrorRules.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/vxbt/vxbt_rule_execute.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

class RulesDocument : public KnowledgeFixture {
protected:
    // The BT of "method URL [header]".
    std::string btOfRequest(const std::string& request) {
        std::istringstream in(request);
        std::string method, url, header;
        in >> method >> url >> header;
        const VXUrlParts parts = vxSplitUrl(url);
        if (!header.empty()) header = header.substr(1, header.size() - 2);
        const BTObject* bt = get_obj_from_bt_name(
            std::string(parts.path).c_str(), std::string(parts.query).c_str(),
            header.empty() ? nullptr : header.data(), app->flowpath.poolMutex, method.c_str());
        return bt ? bt->btName : "excluded";
    }
    int categoryOf(const std::string& bt, int duration, int status) {
        return findCategoryOfBT(*btOf(bt), duration, status, nullptr);
    }
    std::string answer(const std::string& kind, const std::string& asked) {
        const std::string name = asked.substr(0, asked.find(' '));
        if (kind == "requests") return btOfRequest(asked);
        if (kind == "statuses")
            return categoryOf("x", 1, std::stoi(asked)) == kCategoryError ? "error" : "fine";
        EXPECT_EQ(kind, "durations");
        const int category = categoryOf(name, std::stoi(asked.substr(name.size())), 200);
        return category == kCategoryNormal ? "normal" : category == kCategorySlow ? "slow" : "very slow";
    }
    // A fenced block of a kind.
    void take(const std::string& kind, const std::string& text) {
        if (kind == "rules" || kind == "thresholds") {  // a start reads thresholds before the rules
            TearDown();
            SetUp();
            if (kind == "thresholds") thresholdsAre(text);
            if (kind == "rules") lastRules = text;
            rulesAre(lastRules);
            return;
        }
        if (kind == "errors") return parseBtError(text.c_str());
        std::istringstream in(text);
        for (std::string line; std::getline(in, line); ++answers) {
            const std::size_t arrow = line.find(" -> ");
            ASSERT_NE(arrow, std::string::npos) << line;
            EXPECT_EQ(answer(kind, line.substr(0, arrow)), line.substr(arrow + 4)) << line;
        }
    }

    std::string lastRules;
    int answers = 0;
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
    EXPECT_GT(answers, 50);
}

}  // namespace
}  // namespace vx::test
