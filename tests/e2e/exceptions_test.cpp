// Exceptions between the real service and a collector: capture by keywords, names in every run.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/e2e_fixture.h"
#include "tests/support/record_stream.h"

namespace vx::test {
namespace {

std::string thrown(std::int64_t flowpath, const char* className) {
    return frameOf(ExceptionEncode, VXExceptionRecord{7,
                                                      flowpath,
                                                      1388534405000,
                                                      3,
                                                      wire(className),
                                                      wire("no such item"),
                                                      {},
                                                      wire("Shop.buy"),
                                                      wire("cause"),
                                                      wire("at a\nat b")});
}

TEST_F(EndToEnd, ExceptionsComeAsTheKeywordsSayAndWithTheirNamesInEveryRun) {
    startCollector({"--keywords", dir.write("keywords",
                                            "zorEpochDiff=1388534400\nbciInstrSessionPct=100\n"
                                            "enableExceptionInSeqBlob=1\nmaxExceptionMessageLength=4\n"
                                            "vxExceptionFilterList=Other,Ignored\n"
                                            "instrExceptions=1%201%201%2050%200\n")});
    startService();
    inTwoRuns([&](RawAgent& agent, int run) {
        const std::int64_t flowpath = 7000 + run;
        agent.openData().send("\n" + startFrame(flowpath, "/shop", 0) + thrown(flowpath, "Ignored") +
                              thrown(flowpath, "Shop.Gone") + endFrame(flowpath, 500, 0));
        const std::string number = std::to_string(flowpath);
        ASSERT_TRUE(eventually([&] { return streams("data").find("\n4," + number) != std::string::npos; }))
            << traceText();
        const std::string data = streams("data");
        EXPECT_NE(data.find("\n38," + number + ",5,0,1,-1,-1,1,1,1,7,1,-1,at%20a%7Cat%20b\n"),
                  std::string::npos)
            << data;
        EXPECT_NE(data.find("e1_", data.find("\n4," + number)), std::string::npos) << data;
        EXPECT_EQ(data.find("Ignored"), std::string::npos);
        const std::string here = data.substr(data.rfind("\n99,NewConnection"));
        EXPECT_NE(here.find("\n32,1,Shop.Gone\n33,1,-\n34,1,Shop.buy\n35,1,no s\n"), std::string::npos)
            << here;
    });
}

}  // namespace
}  // namespace vx::test
