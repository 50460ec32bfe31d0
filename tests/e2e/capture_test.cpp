// What is captured beside a transaction's calls, between the real programs: exceptions and headers.
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

std::string headers(std::int64_t flowpath, const char* type, const char* text) {
    return frameOf(transactionEncodeHttp,
                   VXHttpRecord{404, 0, 0, flowpath, wire(text), wire(type), {}, {}, {}});
}

TEST_F(EndToEnd, WhatKeywordsAskForComesWithItsNamesInEveryRun) {
    dir.write("files/vxHttpHdrCaptureFileList", "request|Host\nServer\n");
    startCollector({"--files", dir / "files", "--keywords",
                    dir.write("keywords",
                              "zorEpochDiff=1388534400\nbciInstrSessionPct=100\n"
                              "enableExceptionInSeqBlob=1\nmaxExceptionMessageLength=4\n"
                              "vxExceptionFilterList=Other,Ignored\n"
                              "instrExceptions=1%201%201%2050%200\n"
                              "captureHTTPReqFullFp=3%201\ncaptureHTTPRespFullFp=3\n"
                              "enableOTELStandard=1%201%201%201%201%200%200%200%200\n")});
    startService();
    for (int run = 1; run <= 2; ++run) {
        SCOPED_TRACE(run);
        RawAgent agent(proxyPort, "shop", run);
        ASSERT_TRUE(agent.start()) << traceText();
        ASSERT_TRUE(eventually([&] { return occurrences(streams("data"), "\n99,New") == run; }))
            << "before, the agents' data connections are closed";
        const std::int64_t flowpath = 7000 + run;
        const std::string number = std::to_string(flowpath);
        agent.openData().send(
            "\n" + startFrame(flowpath, "/shop", 0) +
            headers(flowpath, "req",
                    "Host=a.b&X=y&traceparent=00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01") +
            thrown(flowpath, "Ignored") + thrown(flowpath, "Shop.Gone") +
            headers(flowpath, "res", "Server=n&Age=1") + endFrame(flowpath, 404, 0));
        ASSERT_TRUE(eventually([&] {  // the whole of it
            const std::string data = streams("data");
            const std::size_t at = data.find("\n4," + number);
            return at != std::string::npos && data.find('\n', at + 1) != std::string::npos;
        })) << traceText();
        const std::string data = streams("data");
        const std::string here = data.substr(data.rfind("\n99,NewConnection"));
        for (const std::string& record :
             {std::string("6,1,Host"), std::string("6,2,Server"), std::string("6,3,Age"),
              "12," + number + ",1:<a&#46;b>", "13," + number + ",404,2:<n>|3:<1>",
              "38," + number + ",5,0,1,-1,-1,1,1,1,7,1,-1,at%20a%7Cat%20b",
              std::string("32,1,Shop.Gone\n33,1,-\n34,1,Shop.buy\n35,1,no s")})
            EXPECT_NE(here.find("\n" + record + "\n"), std::string::npos) << record << "\n" << here;
        EXPECT_NE(here.find(",0af7651916cd43dd8448eb211c80319c,b7ad6b7169203331,01,"), std::string::npos)
            << here;
        EXPECT_LT(here.find("\n6,1,"), here.find("\n12," + number)) << "a name comes ahead of its id";
        EXPECT_NE(here.find("e1_", here.find("\n4," + number)), std::string::npos) << here;
        EXPECT_EQ(here.find("Ignored"), std::string::npos);
        ASSERT_TRUE(stopRun(run));
        ASSERT_TRUE(
            eventually([&] { return summaryOfStreams().byNumber[10] == static_cast<unsigned>(run); }));
        collector->say("start");
    }
}

}  // namespace
}  // namespace vx::test
