#include "commonlibc/mm/VXExceptionMonitor.h"

#include <string>
#include <thread>

#include "commonlibc/VXFileBasedKeywords.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

class ExceptionMonitor : public KnowledgeFixture {
protected:
    static void deliver(std::string text) { parseExceptionMonFile(text.data()); }
    // How many of `times` exceptions of a class were counted.
    static int report(const char* className, int times = 1) {
        int counted = 0;
        for (int i = 0; i < times; ++i) counted += updateCounterAndDurationForException(nullptr, className);
        return counted;
    }
    std::string line(int id, const std::string& name, const std::string& figures) const {
        const VXExceptionMonitorState_t& state = app->exceptionMonitor;
        return std::string("63,") + state.exceptionPrefixID + std::to_string(id) + ":" +
               state.exceptionPrefix + name + "|" + figures + " \n";
    }
    static std::string records() { return reportOf(generateAndDumpExceptionMonitoringRecord); }
};

TEST_F(ExceptionMonitor, NamedClassesAreCountedAndReportedWithALineOfAll) {
    deliver("# comment\nSystem.IOException|Disk\r\nSystem.Other\nSystem.Third|\n|nameless\nSystem.Never|N\n");
    EXPECT_EQ(report("System.IOException", 3), 3);
    EXPECT_EQ(report("System.Third", 2), 2);
    EXPECT_EQ(report("System.Unknown") + report("nameless") + report("") + report(nullptr), 0);
    EXPECT_EQ(records(), line(1, "Disk", "3 0.300000") + line(3, "System.Third", "2 0.200000") +
                             line(0, "OverAll", "5 0.500000"));
    EXPECT_EQ(report("System.Other"), 1);
    EXPECT_EQ(records(), line(1, "Disk", "0 0.000000") + line(2, "System.Other", "1 0.100000") +
                             line(3, "System.Third", "0 0.000000") + line(0, "OverAll", "1 0.100000"));

    report("System.Other");
    VXExceptionMonitorInit();
    EXPECT_EQ(report("System.Other"), 0) << "a new run has not named it yet";
    deliver("System.Other|Again");
    EXPECT_EQ(report("System.Other"), 1);
    EXPECT_EQ(records(), line(1, "Disk", "0 0.000000") + line(2, "Again", "1 0.100000") +
                             line(3, "System.Third", "0 0.000000") + line(0, "OverAll", "1 0.100000"));
}

TEST_F(ExceptionMonitor, ATextTakesThePlaceOfTheFormerOneAndNaTurnsTheMonitorOff) {
    deliver("A|a\nB|b\n");
    EXPECT_EQ(report("A") + report("B"), 2);
    deliver("B|renamed\nC\nB|last\n");
    EXPECT_EQ(report("A") + report("B") + report("C"), 2);
    char na[] = "na";
    handleFileBasedKeyword(na, "vxExceptionMonFile", 6);
    EXPECT_EQ(report("B"), 0);
    EXPECT_EQ(records(), "");
    deliver("NA.Exception\nB|last\n");
    EXPECT_EQ(report("NA.Exception") + report("B"), 2);
    EXPECT_EQ(records(), line(1, "a", "1 0.100000") + line(2, "last", "3 0.300000") +
                             line(3, "C", "1 0.100000") + line(4, "NA.Exception", "1 0.100000") +
                             line(0, "OverAll", "6 0.600000"))
        << "what was counted before the pause is carried over";
}

TEST_F(ExceptionMonitor, ClassesBeyondTheCeilingAreLeftOutAndTheArrayGrows) {
    VXProxy.ceilings.maxExceptionRows = 300;
    std::string text;
    for (int i = 1; i <= 310; ++i) text += "class" + std::to_string(i) + "\n";
    deliver(text);
    EXPECT_EQ(report("class300"), 1);
    EXPECT_EQ(report("class301"), 0);
    deliver("class301\nclass7\n");
    EXPECT_EQ(report("class301") + report("class300"), 0);
    EXPECT_EQ(report("class7"), 1);
}

TEST_F(ExceptionMonitor, AClassThatEveryTextNamesIsCountedAllTheTime) {
    deliver("always\n");
    std::thread collector([this] {
        vxSetCurrent(app);
        for (int i = 0; i < 200; ++i) {
            std::string text;
            for (int j = 0; j < 70; ++j) text += "other" + std::to_string(i * j % 90) + "\n";
            deliver(text + "always|" + std::to_string(i) + "\n");
        }
    });
    const int counted = report("always", 20000);
    for (int i = 0; i < 100; ++i) records();
    collector.join();
    EXPECT_EQ(counted, 20000);
}

}  // namespace
}  // namespace vx::test
