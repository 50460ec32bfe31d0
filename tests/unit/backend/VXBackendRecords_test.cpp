#include "commonlibc/backend/VXBackendRecords.h"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <string>
#include <thread>

#include "commonlibc/VXDigestMonitor.h"
#include "tests/support/knowledge_fixture.h"

namespace vx::test {
namespace {

const std::string kIdle = "0 0.000000 0.000000 2147483647 0 0 0 0.0 0 0 0 0.0 0 0 0 0.000000 0 0 0 0 0 0\n";

class BackendRecords : public KnowledgeFixture {
protected:
    struct Backend : mPP {
        Backend(std::uint32_t id, std::uint8_t kind, std::string itsName) : mPP{}, text(std::move(itsName)) {
            methodId = id;
            type = kind;
            methodName = text.data();
        }
        std::string text;
    };
    static void call(Backend& backend, std::int64_t duration, bool isError = false) {
        const VXMethodLock lock;
        checkAndIncrementAggrBackendDataArray(&backend);
        updateCounterAndDurationForBackend(nullptr, &backend, duration, isError);
    }
    std::string head(int record, int id, const std::string& name) const {
        return std::to_string(record) + "," + app->method.backendPrefixID + std::to_string(id) + ":" +
               app->method.backendPrefix + name + "|";
    }
};

TEST_F(BackendRecords, EachBackendThatWasCalledIsReportedEachTimeUnderItsDecodedName) {
    Backend shown(5, kTypeHttp, "HTTP_shop"), named(6, kTypeHttp, "HTTP_a&#46;b\nc"),
        quiet(7, kTypeDb, "quiet"), tooLong(8, kTypeDb, std::string(1024, 'x')),
        longest(9, kTypeDb, std::string(1023, 'x')), unnumbered(0xFFFFFFFF, kTypeDb, "x");
    shown.aliasMethodName.text = "shop&#58;80";
    checkAndIncrementAggrBackendDataArray(&quiet);
    call(shown, 40);
    call(shown, 10, true);
    setBackendMonitorEnabled("0");
    call(shown, 1);
    setBackendMonitorEnabled("1");
    call(named, 0x100000003);  // least and most have 32 bits
    for (Backend* backend : {&tooLong, &longest, &unnumbered}) call(*backend, 3);
    const std::string one = "1 0.100000 3.000000 3 3 1 0 0.0 0 0 1 0.0 0 0 1 0.000000 0 0 0 0 0 0\n";
    EXPECT_EQ(reportOf(generateAndDumpBackendMonitoringRecord),
              head(75, 5, "shop:80") +
                  "2 0.200000 25.000000 10 40 2 1 0.0 0 0 2 0.0 0 0 2 0.100000 0 0 0 0 0 0\n" +
                  head(75, 6, "HTTP_a.b c") +
                  "1 0.100000 4294967299.000000 3 3 1 0 0.0 0 0 1 0.0 0 0 1 0.000000 0 0 0 0 0 0\n" +
                  head(75, 9, longest.text) + one);
    EXPECT_EQ(vxAggSlot(app->method.backendArr, 8)->callCount, 0) << "without a record, but begun anew";
    const std::string rest = head(75, 6, "HTTP_a.b c") + kIdle + head(75, 9, longest.text) + kIdle;
    EXPECT_EQ(reportOf(generateAndDumpBackendMonitoringRecord), head(75, 5, "shop:80") + kIdle + rest);
    call(shown, 2);
    VXBackendMonitorInit();
    EXPECT_EQ(reportOf(generateAndDumpBackendMonitoringRecord), head(75, 5, "shop:80") + kIdle + rest)
        << "a run begins anew";
}

TEST_F(BackendRecords, DigestsAreKeptOnceOrderedAndWrittenForWhatWasCalledInThePeriod) {
    Backend shop(5, kTypeHttp, "HTTP_shop"), other(6, kTypeDb, "other");
    call(shop, 7);
    EXPECT_EQ(vxAggSlot(app->method.backendArr, 5)->digest, nullptr) << "off without an order";
    setDigestPercentileIP("1%2010000%2050,99.99");
    for (int i = 1; i <= 1000; ++i) call(shop, i);
    EXPECT_EQ(reportOf(generateAndDumpBackendDigestRecord),
              head(794, 5, "HTTP_shop") + "1000 1 1000 50.00 500.50 99.99 1000.00\n");
    call(other, 20);
    EXPECT_EQ(reportOf(generateAndDumpBackendDigestRecord),
              head(794, 6, "other") + "1 20 20 50.00 20.00 99.99 20.00\n");
    EXPECT_EQ(reportOf(generateAndDumpBackendDigestRecord), "");

    call(shop, 1);
    setDigestPercentileIP("0");
    call(shop, 2);
    setDigestPercentileIP("1");
    call(shop, 3);
    EXPECT_EQ(reportOf(generateAndDumpBackendDigestRecord), head(794, 5, "HTTP_shop") + "1 3 3 95.00 3.00\n")
        << "nothing from before the pause";
}

TEST_F(BackendRecords, NoCallIsLostOrCountedTwiceWhileReportsAreTaken) {
    constexpr int kCalls = 20000;
    Backend shop(5, kTypeHttp, "HTTP_shop");
    setDigestPercentileIP("1");
    call(shop, 1);
    std::atomic<bool> done{false};
    std::thread caller([&] {
        vxSetCurrent(app);
        for (int i = 1; i < kCalls; ++i) updateCounterAndDurationForBackend(nullptr, &shop, i, i % 4 == 0);
        done = true;
    });
    long long calls = 0, errors = 0, digested = 0, total = 0;
    for (bool last = false; !last;) {
        last = done;
        const std::string record = reportOf(generateAndDumpBackendMonitoringRecord);
        const std::string digest = reportOf(generateAndDumpBackendDigestRecord);
        long long part = 0, partErrors = 0, partDigested = 0;
        double rate = 0, average = 0;
        std::sscanf(record.c_str() + record.rfind('|'), "|%lld %lf %lf %*d %*d %*d %lld", &part, &rate,
                    &average, &partErrors);
        if (!digest.empty()) std::sscanf(digest.c_str() + digest.rfind('|'), "|%lld", &partDigested);
        calls += part;
        errors += partErrors;
        digested += partDigested;
        total += std::llround(average * static_cast<double>(part));
    }
    caller.join();
    EXPECT_TRUE(calls == kCalls && digested == kCalls && errors == kCalls / 4 - 1);
    EXPECT_NEAR(static_cast<double>(total), 1 + kCalls * (kCalls - 1.0) / 2, kCalls);
}

}  // namespace
}  // namespace vx::test
