#include "commonlibc/VXSessionKeywords.h"

#include "commonlibc/flowpath/VXFlowpathGenerator.h"
#include "tests/support/header_fixture.h"

namespace vx::test {
namespace {

class SessionKeywords : public HeaderFixture {
protected:
    // A transaction that begins now with this cookie: session flowpath, count in it, captured.
    std::string begin(std::int64_t flowpath, const std::string& cookie) {
        VXTransactionStart start{};
        start.flowpathInstance = flowpath;
        start.startTime = clock.nowMs() * 1000;
        start.url = wire("/shop");
        start.vxCookieSet = wire(cookie.c_str());
        readBytes(*app, frameOf(transactionStartEncode, start));
        const std::string key = std::to_string(flowpath);
        const vxTD* begun = vxFindSlot(key.c_str(), key.size());
        return std::to_string(begun->sessionFP) + ' ' + std::to_string(begun->totalFpcount) + ' ' +
               std::to_string(begun->tlIsFPCaptured);
    }
    // The cookie that an agent would send back behind a transaction.
    std::string cookieOf(const char* key) {
        const vxTD* done = vxFindSlot(key, std::strlen(key));
        return std::to_string(done->sessionFP) + "-1-" + std::to_string(done->sessionStartTime) + '-' +
               std::to_string(done->sessionCaptured) + "-0-0-" + std::to_string(done->totalFpcount);
    }
};

TEST_F(SessionKeywords, ASessionLivesAsLongAsTheCollectorSays) {
    keyword("enableVXSession", "1%20VXc%20shop.example%201%202%203%2060000");
    EXPECT_EQ(begin(1001, ""), "1001 1 1");
    vx_word_set(app->VXSys.bciInstrSessionPct, 0);  // from here on a new draw captures nothing
    clock.advanceMs(59'000);
    EXPECT_EQ(begin(1002, cookieOf("1001")), "1001 2 1") << "inherited";
    EXPECT_EQ(begin(1003, cookieOf("1002")), "1001 3 1");
    EXPECT_EQ(begin(1004, cookieOf("1003")), "1004 1 0") << "one flowpath too many";
    EXPECT_EQ(begin(1005, cookieOf("1004")), "1004 2 0") << "a session that was not captured";
    clock.advanceMs(60'000);
    EXPECT_EQ(begin(1006, cookieOf("1002")), "1006 1 0") << "too old";
    keyword("enableVXSession", "1%20VXc%20%20%20%20-1%20-1");  // refused: both limits stay
    EXPECT_EQ(begin(1007, cookieOf("1005")), "1007 1 0") << "too old";
    keyword("enableVXSession", "1%20VXc%20%20%20%200%200");
    EXPECT_EQ(begin(1008, cookieOf("1003")), "1001 4 1") << "without limits";
    keyword("enableVXSession", "1%20VXc%20%20%20%200%20500");
    EXPECT_EQ(vx_word_get(app->VXSys.vxSessionIdleTimeOutSecs), 1) << "less than a second is not never";
}

}  // namespace
}  // namespace vx::test
