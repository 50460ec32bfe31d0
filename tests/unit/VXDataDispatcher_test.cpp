#include "commonlibc/VXDataDispatcher.h"

#include <atomic>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/app_fixture.h"
#include "tests/support/dumped_records.h"

namespace vx::test {
namespace {

class DataDispatcher : public AppFixture {
protected:
    void TearDown() override {
        closeDumping(*app);
        AppFixture::TearDown();
    }
    static std::string listText(const VXBufferNode* node) {
        std::string text;
        for (; node; node = node->next)
            text.append(node->buffer, static_cast<std::size_t>(node->use_len)).append("|");
        return text;
    }
    void add(const std::string& record) { dumpData(record.data(), static_cast<std::int64_t>(record.size())); }
};

// Each row adds its records to a fresh chain and looks at the last answer and at both lists ("|" ends a
// node).
TEST_F(DataDispatcher, AChainTakesSplitsCutsOrRefuses) {
    const struct {
        const char* name;
        int chunks, size;
        std::vector<std::string> records;
        int code;
        const char *readList, *writeList;
    } rows[] = {
        {"an exact fit moves the node", 2, 8, {"ab\n", "cdef\n"}, 0, "ab\ncdef\n|", "|"},
        {"an exact fit of the last leaves none", 1, 3, {"ab\n"}, 0, "ab\n|", ""},
        {"a record straddles two nodes", 3, 4, {"ab\n", "cde\n"}, 0, "ab\nc|", "de\n||"},
        {"a full rest stays in its node", 2, 4, {"ab\n", "cdef\n"}, 0, "ab\nc|", "def\n|"},
        {"the next behind it", 3, 4, {"ab\n", "cdef\n", "g\n"}, 0, "ab\nc|def\n|", "g\n|"},
        {"no node behind drops it whole", 1, 8, {"ab\n", "cdefgh\n"}, kChainDropped, "", "ab\n|"},
        {"longer than a node is cut", 3, 4, {"ab\n", "0123456789\n"}, kChainCut, "ab\n0|", "\n||"},
        {"every node waits", 1, 3, {"ab\n", "c\n"}, kChainAllWaiting, "ab\n|", ""},
        {"no nodes at all", 0, 4, {"ab\n"}, kChainNoBuffers, "", ""},
    };
    for (const auto& row : rows) {
        closeDumping(*app);
        openDumping(*app, row.chunks, row.size);
        app->VXSys.dataDropCount = 0;
        const VXBufferChain& chain = app->data.chain;
        int code = 0;
        for (const std::string& record : row.records)
            code =
                addDataInSendBuffer(app->data.chain, record.data(), static_cast<std::int64_t>(record.size()));
        EXPECT_EQ(code, row.code) << row.name;
        EXPECT_EQ(listText(chain.readListHead), row.readList) << row.name;
        EXPECT_EQ(listText(chain.writeListHead), row.writeList) << row.name;
        EXPECT_EQ(app->VXSys.dataDropCount, row.code < 0 ? 1u : 0u) << row.name;
        EXPECT_EQ(chain.VXBCIAgentBB, chain.writeListHead) << row.name;
        EXPECT_EQ(chain.VXCollectorBB, chain.readListHead) << row.name;
        EXPECT_EQ(chain.readListSize + chain.writeListSize, row.chunks) << row.name;
    }
}

TEST_F(DataDispatcher, ANewThreadKeepsTheNodesAndForgetsTheirData) {
    openDumping(*app, 3, 4);
    add("ab\n");
    movePartialToReadList();
    app->data.chain.readListHead->offset = 2;
    add("cd\n");
    // A smaller count gives nothing back.
    vx_word_set(app->VXSys.bciDataBufferMaxCount, std::numeric_limits<std::int32_t>::min());
    ASSERT_EQ(buff_list_init(), 0);
    const VXBufferChain& chain = app->data.chain;
    EXPECT_EQ(listText(chain.writeListHead), "|||");
    EXPECT_EQ(chain.VXCollectorBB, nullptr);
    EXPECT_EQ(chain.writeListTail->offset, 0);
    EXPECT_EQ(chain.recordsDropped, 2u);  // what nobody gets is counted
}

TEST_F(DataDispatcher, LosesNoByteBetweenManyProducersAndASender) {
    constexpr int kProducers = 3, kRecords = 2000;
    openDumping(*app, 4, 64);
    std::atomic<bool> done{false};
    std::size_t sentBytes = 0;
    const auto sendAll = [&] {
        movePartialToReadList();
        while (VXBufferNode* node = app->data.chain.VXCollectorBB) {
            sentBytes += static_cast<std::size_t>(std::exchange(node->use_len, 0));
            moveToWriteList(app->data.chain);
        }
    };
    std::thread sender([&] {
        vxSetCurrent(app);
        while (!done) sendAll();
    });
    std::vector<std::thread> producers;
    producers.reserve(kProducers);
    for (int i = 0; i < kProducers; ++i)
        producers.emplace_back([&] {
            vxSetCurrent(app);
            for (int n = 0; n < kRecords; ++n) add("1234567\n");
        });
    for (std::thread& producer : producers) producer.join();
    done = true;
    sender.join();
    sendAll();
    EXPECT_EQ(sentBytes, app->data.chain.recordsAccepted * 8);
    EXPECT_EQ(app->data.chain.recordsAccepted + app->data.chain.recordsDropped,
              std::uint64_t{kProducers * kRecords});
}

}  // namespace
}  // namespace vx::test
