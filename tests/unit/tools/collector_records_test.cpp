#include "tools/collector/collector_records.h"

#include <gtest/gtest.h>

#include "tools/collector/collector_protocol.h"

namespace vx::collector {
namespace {

class TakeRecord : public testing::Test {
protected:
    void take(const char* line) { takeRecord(line, instance, summary); }
    InstanceState instance;
    Summary summary;
};

TEST_F(TakeRecord, AddsTransactionsUpByTheNamesOfTheStream) {
    take("99,NewConnection,FPGVersion:1.0");
    take("7,2,/shop,cart");
    take("5,a.b(c,d),7");
    take("2,100,1,5,5.1,2,/shop/cart,,0,0,0,,0,-1,,,,5");
    take("4,100,200,10,0,40,2,0,,0,7:5_0_1__7:5_1_30____");
    take("4,101F,500,13,0,60,2,0,,0,");
    take("4,102,200,10,0,50,2,0,,0,-1,7:5:1:/u,v_0_1__7:5_1_30____");  // behind the id of a tag
    take("4,103,-99,10,0,40,2,0,,0,");                                 // taken back
    take("");
    const BtRow& row = summary.bts.at("/shop,cart");
    EXPECT_TRUE(row.count == 3 && row.normal == 2 && row.error == 1 && row.discarded == 1);
    EXPECT_TRUE(row.totalMs == 150 && row.minMs == 40 && row.maxMs == 60);
    const MethodRow& method = summary.methods.at("a.b(c,d)");
    EXPECT_TRUE(method.entries == 2 && method.exits == 2 && method.totalMs == 60);
    EXPECT_EQ(summary.transactions, 3u);
    EXPECT_EQ(summary.unreadable, 0u);
}

TEST_F(TakeRecord, AddsCalloutsUpByTheNamesOfTheirBackEnds) {
    take("5,HTTP_10&#46;0&#46;0&#46;1&#58;80,8");
    take("5,DB_orders,9");
    take(
        "4,1,200,10,0,40,2,0,,0,T4:8:1.500:1:-:3::::200_E5:8:2.007:1:-:3:502:::_5:1_1_2____T6:9:0.250:10:0:3:"
        ":::200:_");
    const BackendRow& web = summary.backends.at("HTTP_10.0.0.1:80");
    EXPECT_TRUE(web.count == 2 && web.errors == 1 && web.totalUs == 3507 && web.maxUs == 2007);
    EXPECT_STREQ(web.target, "HTTP");
    EXPECT_STREQ(summary.backends.at("DB_orders").target, "DB");
    EXPECT_EQ(summary.methods.at("method 5").exits, 1u);
    take("91,7,Front,Back,shop1,host1,host2,shop2,NA");
    EXPECT_EQ(summary.callers.at("Front/host1/shop1 (7) -> Back").announced, 1u);
    EXPECT_EQ(summary.unreadable, 0u);
}

TEST_F(TakeRecord, KeepsHeadersAndExceptionsWithTheirTransaction) {
    for (const char* line :
         {"7,2,Pay", "32,1,a.Timeout", "33,1,-", "33,2,Cart", "34,1,Cart.show", "35,1,too late, again",
          "36,1,db", "6,1,Via", "12,100,1:<a&#46;b&#44; c>|2:7",
          "38,100,5,6,1,-1,-1,1,2,1,-1,1,1,at%20a%2Cb%7C%7Cat%20c", "38,100F,5,6,1,-1,-1,1,1,1,-1,-1,-1,",
          "2,100,1,5,5.1,2,/pay?x=1,,0,0,0,,0,-1,,,,5", "13,100,503,", "13,100,503,1:<>",
          "4,100,503,13,0,40,2,0,,0,"})
        take(line);
    const ExceptionRow& row = summary.exceptions.at("a.Timeout");
    EXPECT_TRUE(row.count == 2 && row.bts.at("Pay") == 2);
    EXPECT_EQ(row.lastText, "in Cart.show");
    EXPECT_EQ(row.lastStack, "at a,b\n\nat c\n") << "the last that had one";
    const KeptTransaction* kept = summary.kept.find(100);
    ASSERT_TRUE(kept && kept->ended && kept->request.size() == 2 && kept->response.size() == 1);
    EXPECT_TRUE(kept->bt == "Pay" && kept->url == "/pay?x=1" && kept->status == 503 && kept->category == 13);
    EXPECT_EQ(kept->request[0] + ";" + kept->request[1], "Via: a.b, c;header 2: value 7");
    EXPECT_EQ(kept->exceptions[0].text, "in Cart.show of Cart: too late, again, because of db");
    EXPECT_EQ(summary.unreadable, 0U);
    for (const char* line :
         {"12,100,1<a>", "12,x,", "13,100,1:<a>", "12,100,1:<", "38,100,5,6,1,-1,-1,1", "32,x,y"})
        take(line);
    EXPECT_EQ(summary.unreadable, 6U);
    for (std::size_t i = 0; i < 2 * kKeptTransactions; ++i)
        summary.kept.of(static_cast<std::int64_t>(1000 + i));
    EXPECT_TRUE(summary.kept.numbers().size() == kKeptTransactions && !summary.kept.find(100));
}

TEST(CollectorProtocol, ReplyNamesThePolicyWithinFiveFieldsAndTheAgentsOwnPortsOrTheOffer) {
    Options options;
    const std::string line =
        "vx_ctrl_msg_req:appName=a;vxAppServerHost=s;tierName=t_1;agentName=g;supportedProtocols=TCP:7000,"
        "WSS:443; ";
    EXPECT_EQ(connectReply(line, options, 3),
              "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=3%5%10%60;ProtoVersion=1;"
              "supportedProtocols=TCP:7000,WSS:443;procIndex=3\n");
    options.offer = "WSS:8443,TCP:8080";
    EXPECT_NE(connectReply(line, options, 3).find(";supportedProtocols=WSS:8443,TCP:8080;procIndex"),
              std::string::npos);
    EXPECT_EQ(identityOf(line).text(), "t_1/s/a/g");
    EXPECT_EQ(kindOf("vx_data_msg_req:x"), StreamKind::kData);
}

}  // namespace
}  // namespace vx::collector
