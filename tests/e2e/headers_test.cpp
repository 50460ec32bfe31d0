// Headers between the real service and a collector: capture by keywords and a list file, names in every run,
// the trace context in the header of the transaction.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/e2e_fixture.h"
#include "tests/support/record_stream.h"

namespace vx::test {
namespace {

std::string headers(std::int64_t flowpath, const char* type, const char* text) {
    return frameOf(transactionEncodeHttp,
                   VXHttpRecord{404, 0, 0, flowpath, wire(text), wire(type), {}, {}, {}});
}

TEST_F(EndToEnd, HeadersComeAsTheKeywordsSayAndWithTheirNamesInEveryRun) {
    std::filesystem::create_directories(dir / "files");
    dir.write("files/vxHttpHdrCaptureFileList", "request|Host\nServer\n");
    startCollector({"--files", dir / "files", "--keywords",
                    dir.write("keywords",
                              "zorEpochDiff=1388534400\nbciInstrSessionPct=100\n"
                              "captureHTTPReqFullFp=3%201\ncaptureHTTPRespFullFp=3\n"
                              "enableOTELStandard=1%201%201%201%201%200%200%200%200\n")});
    startService();
    inTwoRuns([&](RawAgent& agent, int run) {
        const std::int64_t flowpath = 7000 + run;
        const std::string number = std::to_string(flowpath);
        agent.openData().send(
            "\n" + startFrame(flowpath, "/shop", 0) +
            headers(flowpath, "req",
                    "Host=a.b&X=y&traceparent=00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01") +
            headers(flowpath, "res", "Server=n&Age=1") + endFrame(flowpath, 404, 0));
        ASSERT_TRUE(eventually([&] { return streams("data").find("\n4," + number) != std::string::npos; }))
            << traceText();
        const std::string data = streams("data");
        const std::string here = data.substr(data.rfind("\n99,NewConnection"));
        for (const std::string& record :
             {std::string("6,1,Host"), std::string("6,2,Server"), std::string("6,3,Age"),
              "12," + number + ",1:<a&#46;b>", "13," + number + ",404,2:<n>|3:<1>"})
            EXPECT_NE(here.find("\n" + record + "\n"), std::string::npos) << record << "\n" << here;
        EXPECT_NE(here.find(",0af7651916cd43dd8448eb211c80319c,b7ad6b7169203331,01,"), std::string::npos)
            << here;
        EXPECT_LT(here.find("\n6,1,"), here.find("\n12," + number)) << "a name comes ahead of its id";
    });
}

}  // namespace
}  // namespace vx::test
