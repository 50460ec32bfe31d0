// Rules that an operator edits while traffic runs, and the check of a rule file, between the real programs.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/support/e2e_fixture.h"

namespace vx::test {
namespace {

class RuleFiles : public EndToEnd {
protected:
    // Beside and renamed, as an operator is told to.
    void writeRules(const std::string& text) {
        const std::string beside = dir.write("files/.new", text);
        std::filesystem::rename(beside, dir / "files/BTRuleConfig");
    }
    std::uint64_t counted(const std::string& bt) const {
        const collector::Summary summary = summaryOfStreams();
        const auto row = summary.bts.find(bt);
        return row == summary.bts.end() ? 0 : row->second.count;
    }
    bool counts(const std::string& bt, std::uint64_t more = 0) {
        const std::uint64_t before = counted(bt);
        return eventually([&] { return counted(bt) > before + more; });
    }
    // Runs a program's check to its end: the exit code.
    int check(const std::string& name, std::vector<std::string> arguments) {
        Program::Setup setup;
        arguments.insert(arguments.begin(), {programPath(name), "--check-rules"});
        setup.arguments = arguments;
        setup.environment = {"VXHOME=" + dir.path()};
        setup.outputFile = dir.path() + "/" + name + ".check";
        Program program(setup);
        const int code = program.wait();
        told = program.output();
        return code;
    }

    std::string told;
};

TEST_F(RuleFiles, AnEditRenamesWhatBeginsAfterIt) {
    writeRules("7|Before|2|1|/shop|0\n7|Rest|3|1|*|0\n");
    startCollector({"--files", dir / "files"});
    startService();
    const auto load = startLoad({"--rate", "200", "--duration", "300", "--urls", "5", "--calls", "2"});
    ASSERT_TRUE(counts("Before") && counts("Rest")) << traceText();

    writeRules("7|broken\n7|After|4|1|/shop|0\n7|Rest|3|1|*|0\n7|far|70000|0|/x|0\n");
    ASSERT_TRUE(counts("After", 20)) << traceText();
    const std::uint64_t before = counted("Before");
    ASSERT_TRUE(counts("After", 50));
    EXPECT_EQ(counted("Before"), before);

    writeRules("1|2|n|d|FromFirst|1|-|-|-\n");
    EXPECT_TRUE(counts("/shop")) << traceText();
    writeRules("2|2|shop|Shop|-|1|1|[input1=startswith&&input2=/shop]|-\n");
    EXPECT_TRUE(counts("Shop") && counts("others")) << traceText();
    writeRules("7|Hidden|5|1|/shop|1\n7|Rest|3|1|*|0\n");
    ASSERT_TRUE(counts("Rest", 50));
    const std::uint64_t shown = counted("Shop");
    ASSERT_TRUE(counts("Rest", 50));
    EXPECT_EQ(counted("Shop"), shown);
    EXPECT_EQ(counted("Hidden"), 0u);
    load->signal(SIGTERM);
    load->wait();
    EXPECT_EQ(summaryOfStreams().unreadable, 0u);
}

TEST_F(RuleFiles, AreCheckedByBothProgramsAlikeWithoutAService) {
    const std::string good = dir.write("good", "7|Cart|2|1|/shop/cart|0\n7|Shop|3|1|/shop|0\n");
    for (const char* name : {"VXProxyService", "vxcollector"}) {
        EXPECT_EQ(check(name, {good, "--url", "/shop/cart/7", "--method", "GET"}), 0) << told;
        EXPECT_NE(told.find("BT: \"Cart\" (id 2, line 1)"), std::string::npos) << told;
        const std::string bad = dir.write("bad", "7|Cart|2\n");
        EXPECT_EQ(check(name, {bad}), 2) << told;
        EXPECT_NE(told.find("fewer than 6 fields"), std::string::npos) << told;
        EXPECT_EQ(check(name, {dir / "missing"}), 2) << told;
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "proxy"));
}

}  // namespace
}  // namespace vx::test
