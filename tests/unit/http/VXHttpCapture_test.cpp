#include "commonlibc/http/VXHttpCapture.h"

#include "commonlibc/http/VXHttpReqRespCaptureSettings.h"
#include "tests/support/header_fixture.h"

namespace vx::test {
namespace {

class HeaderCapture : public HeaderFixture {};

std::string lines(std::string text) {
    setHttpHashMapNode(text.data());
    return text;
}

TEST_F(HeaderCapture, SettingsSayWhatOfATextGoesIntoTheRecord) {
    lines("# wanted\nrequest|Host \nAccept\r\nresponse|Server\nother|X\n");
    const struct {
        const char* settings;
        std::int32_t agentType;
        const char *type, *text, *record;
    } rows[] = {
        {"3%200%200%200", kAgentJava, "req", "Host=a,b.c&bare&=v&Empty=&Q=x=y",
         "12,77,1:<a&#44;b&#46;c>|2:<>|3:<x=y>"},
        {"3%200%200%200", kAgentJava, "res", "Server=n>g", "13,77,404,4:<n&#62;g>"},
        {"3%200%200%200", kAgentPython, "req", "Host$a=1|Accept$b", "12,77,1:<a=1>|5:<b>"},
        {"3%200%200%200", kAgentGo, "rep",
         "Host$a,b\x7F"
         "Accept$c\n",
         "13,77,404,1:<a%2Cb>|5:<c%A>"},
        {"3%201%200%200", kAgentJava, "req", "host=1&Host=2&Server=3&X=4", "12,77,6:<1>|1:<2>"},
        {"3%200%201%203", kAgentJava, "req", "Host=,bcd&Accept=ab", "12,77,1:<&#44;bc>|5:<ab>"},
        {"2%200%200%200", kAgentJava, "req", "Host=a", ""},
        {"4%200%200%200", kAgentJava, "req", "Host=a", ""},  // refused: 2 stays
    };
    for (const auto& row : rows) {
        for (const char* name : {"captureHTTPReqFullFp", "captureHTTPRespFullFp"})
            keyword(name, row.settings);
        app->VXBCISetting.agentTypeCode = row.agentType;
        EXPECT_EQ(recordsOf(row.type, row.text), row.record) << row.settings << ' ' << row.text;
    }
    dropHttpHeaderLists();
    keyword("captureHTTPReqFullFp", "3%201");
    EXPECT_EQ(recordsOf("req", "Host=a"), "12,77,");
    app->Server.isTenRecordDump = 0;
    EXPECT_EQ(recordsOf("req", "Host=a"), "");
    app->Server.isTenRecordDump = 1;
    slot->tlBTObj = nullptr;
    EXPECT_EQ(recordsOf("req", "Host=a"), "");
}

TEST_F(HeaderCapture, ValuesOfListedHeadersBecomeIds) {
    keyword("captureHTTPReqFullFp", "3");
    EXPECT_EQ(recordsOf("req", "Host=a.b"), "12,77,1:<a&#46;b>");
    keyword("hdrListForValueAsId", "host%2Clang,,");
    clearDumped(*app);
    headers("req", "Host=a.b&Lang=de&Lang=en&Host=a.b&Lang=");
    EXPECT_EQ(dumpedText(*app), "6,2,a&#46;b\n6,3,Lang\n6,4,de\n6,5,en\n12,77,1:2|3:4|3:5|1:2|3:<>\n");
    keyword("hdrListForValueAsId", "");
    EXPECT_EQ(recordsOf("req", "Host=a.b"), "12,77,1:<a&#46;b>");
}

// Bad texts: no record line breaks, no item is cut, nothing grows beyond its bound.
TEST_F(HeaderCapture, ATextOfAnyKindStaysWithinItsBounds) {
    keyword("captureHTTPReqFullFp", "3");
    EXPECT_EQ(recordsOf("req", "no separator at all"), "12,77,");
    EXPECT_EQ(recordsOf("req", "A=1\r\n2\t3\x01&B\n=4"), "12,77,1:<1&#13;&#10;2\t3\x01>|2:<4>");
    EXPECT_EQ(recordsOf("req", "A=" + std::string(60000, 'v')), "12,77,") << "an item too long is left out";
    EXPECT_EQ(recordsOf("req", "A=" + std::string(3000, ',') + "&B=2"), "12,77,3:<2>");
    std::string many;
    for (int i = 0; i < 2000; ++i) many += "A=&";
    const std::string record = recordsOf("req", many);
    EXPECT_TRUE(record.size() <= 6 + 2048 && record.size() > 2000 && record.ends_with("|1:<>")) << record;

    VXProxy.ceilings.maxHeaderNames = 4;
    EXPECT_EQ(recordsOf("req", "C=3&D=4&A=1"), "12,77,4:<3>|1:<1>")
        << "a name beyond the ceiling is left out";
    std::string longList;
    for (int i = 0; i < 3000; ++i) longList += "Name" + std::to_string(i) + "\n";
    lines(longList + std::string(70000, 'n'));
    EXPECT_EQ(app->http.response.list.count, 1024);
}

}  // namespace
}  // namespace vx::test
