#include "commonlibc/VXMethodManager.h"

#include <string>

#include "commonlibc/VXMethodClasses.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

class MethodTable : public KnowledgeFixture {
protected:
    void SetUp() override {
        KnowledgeFixture::SetUp();
        hashMapForAgent();
        table = app->method.methodHashMapNode;
        app->data.data_thread_running = 1;
    }
    mPP* report(const std::string& name) { return vxFindOrAddMethod(table, name.c_str(), name.size()); }
    mPP* backend(const char* name, std::uint8_t type, std::uint8_t subtype, int updateFlag = 1) {
        return searchAndUpdateMethodHashMap(name, table, updateFlag, type, subtype);
    }
    methodHashMapNode_t* table = nullptr;
};

TEST_F(MethodTable, TheFixedMethodsComeFirstAndANewNameGetsTheNextIdAndOneRecord) {
    hashMapForAgent();  // a second time
    EXPECT_EQ(app->method.beginRequest.load()->methodId, 1U);
    EXPECT_EQ(vxAggSlot(app->method.backendArr, 2)->mpp, app->method.dbSqlDb);
    EXPECT_EQ(dumpedText(*app), "") << "they wait for the replay";
    mPP* method = report("com.example.Shop.buy");
    EXPECT_EQ(report("com.example.Shop.buy"), method);
    EXPECT_EQ(backend("com.example.Shop.buy", kTypePlain, 0, 0), method);
    markMethodUsed(method);
    EXPECT_EQ(dumpedText(*app), "5,com.example.Shop.buy,3\n");
}

TEST_F(MethodTable, ANameOfAnyLengthLeavesOneLine) {
    mPP* method = report(std::string(3000, 'n'));
    EXPECT_EQ(report(std::string(3001, 'n')), method) << "what is cut off does not tell methods apart";
    mPP* broken = report("a\nb");
    EXPECT_EQ(vxFindMethod("a\nbcd", 3), broken);
    EXPECT_EQ(report(std::string("a\nb\0d", 5)), broken) << "the text ends where it is terminated";
    EXPECT_EQ(report(""), nullptr);
    EXPECT_EQ(dumpedRecords(*app),
              (std::vector<std::string>{"5," + std::string(1018, 'n') + ",3", "5,a b,4"}))
        << "the name is cut, not the id";
}

TEST_F(MethodTable, ABackendIsFoundAgainAndTakesTheSubtypeOfTheCall) {
    mPP* http = backend("h", kTypeHttp, 3);
    EXPECT_STREQ(http->aliasMethodName.get(), "HTTP_h");
    EXPECT_EQ(backend("h", kTypeHttp, 4), http);
    EXPECT_EQ(http->subtype, 4);
    EXPECT_EQ(vxAggSlot(app->method.backendArr, http->methodId)->mpp, http);
    EXPECT_EQ(dumpedText(*app), "5,HTTP_h,3\n");
    EXPECT_EQ(backend("c", kTypeCustom, 8)->methodId, 5U) << "a custom one takes the id behind its own";
    EXPECT_EQ(report("next")->methodId, 6U);
}

TEST_F(MethodTable, BackendsBeyondTheLimitAreOthers) {
    app->VXSys.maxIPCount = 2;
    backend("one", kTypeHttp, 3);
    backend("two", kTypeHttp, 3);
    mPP* others = backend("three", kTypeHttp, 3);
    EXPECT_STREQ(others->methodName, "Others");
    EXPECT_EQ(backend("three", kTypeHttp, 3), others) << "filed under the key that came first";
    EXPECT_EQ(backend("d", kTypeDb, 10), others);
    EXPECT_STREQ(backend("one", kTypeHttp, 3)->methodName, "HTTP_one");
    EXPECT_STREQ(others->aliasMethodName.get(), "Others") << "not the back-end that happened to be first";
    const mPP* unlimited = backend("x", kTypeDb, 10, 0);
    EXPECT_STREQ(unlimited->methodName, "DB_x") << "only named back-ends are limited";
    for (const mPP* counted : {static_cast<const mPP*>(others), unlimited})
        EXPECT_EQ(vxAggSlot(app->method.backendArr, counted->methodId)->mpp, counted);
    EXPECT_EQ(dumpedText(*app), "5,HTTP_one,3\n5,HTTP_two,4\n5,Others,5\n5,DB_x,6\n");
}

}  // namespace
}  // namespace vx::test
