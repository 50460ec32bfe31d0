// Sums of written, received and dropped records over a chain and real sockets.
#include "commonlibc/VXDataTransfer.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXDataLink.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_sock.h"
#include "tests/support/dumped_records.h"
#include "tests/support/link_fixture.h"

namespace vx::test {
namespace {

class Transfer : public AppFixture {
protected:
    void SetUp() override {
        AppFixture::SetUp();
        std::signal(SIGPIPE, SIG_IGN);
    }
    void TearDown() override {
        close();
        closeDumping(*app);
        AppFixture::TearDown();
    }
    FakePeer connect() {
        char error[kSockErrorSize];
        const VXCollectorRecord record{1, collector.port(), "127.0.0.1", 0, 0, 0};
        EXPECT_TRUE(vxOpenLink(link(), record, 20000, error));
        return collector.accept();
    }
    VXDataLink link() {
        return {app->data.dataSocket, app->data.dataWsi, app->data.connectionPool, app->pool};
    }
    void close(std::int64_t settleUs = 0) { vxCloseLink(link(), chain(), vxlb_steady_us() + settleUs); }
    VXBufferChain& chain() { return app->data.chain; }
    int send() {
        movePartialToReadList();
        return vxSendChain(chain(), app->data.dataSocket.get(), nullptr);
    }
    // Writes the next record, numbered.
    void write() {
        std::string record = std::to_string(written++) + ",";
        record.resize(999, 'x');
        record += '\n';
        dumpData(record.data(), 1000);
    }
    // Writes until the peer's host takes no more, or until all nodes wait for it.
    void writeUntilStalled() {
        const std::uint64_t before = chain().recordsDropped;
        do
            for (int i = 0; i < 100; ++i) write();
        while (send() != kSendNoBytes && chain().recordsDropped == before);
    }
    // Waits until the peer's host has no room left and has acknowledged what it holds. Bytes it holds.
    int fill(const FakePeer& peer) {
        int held = 0;
        EXPECT_TRUE(eventually([&] {
            ::ioctl(peer.descriptor(), FIONREAD, &held);
            const int socket = vxlb_socket_fd(app->data.dataSocket.get());
            return held >= 4096 && chain().heldBytes - vx_platform_unacknowledged(socket) == held;
        }));
        return held;
    }
    // The whole lines of a text that was received; each must be a record as it was written.
    void note(const std::string& text) {
        std::size_t from = 0;
        for (std::size_t end; (end = text.find('\n', from)) != std::string::npos; from = end + 1) {
            const std::string line = text.substr(from, end - from);
            EXPECT_EQ(line.size(), 999u);
            EXPECT_EQ(line.find_first_not_of("0123456789,"), line.find('x'));
            seen.push_back(std::stol(line));
        }
    }
    // Every record was seen once or counted once, and in order.
    void expectSums() {
        EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
        EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end()) << "sent twice";
        EXPECT_EQ(seen.size() + chain().recordsDropped, static_cast<std::size_t>(written));
    }

    FakeCollector collector{4096};
    long written = 0;
    std::vector<long> seen;
};

TEST_F(Transfer, AResetCostsNothingThatTheOtherHostHadNotTaken) {
    openDumping(*app, 200, 30000);
    for (int round = 0; round < 3; ++round) {
        FakePeer peer = connect();
        writeUntilStalled();
        // What the host has taken is read without making room for more: then the connection is reset.
        const int held = fill(peer);
        std::string text(static_cast<std::size_t>(held), '\0');
        ASSERT_EQ(::recv(peer.descriptor(), text.data(), text.size(), MSG_PEEK), held);
        note(text);
        peer.reset();
        while (send() != kSendLost) continue;
        close();
    }
    FakePeer last = connect();
    std::thread sender([&] {
        vxSetCurrent(app);
        while (chain().VXCollectorBB.load()) send();
        close(60000000);
    });
    note(last.readToEnd());
    sender.join();
    EXPECT_EQ(chain().recordsDropped, 0u);
    expectSums();
}

TEST_F(Transfer, AConnectionClosedAgainstAStalledPeerCallsTheRestBack) {
    openDumping(*app, 200, 30000);
    FakePeer peer = connect();
    writeUntilStalled();
    fill(peer);
    close();  // no time for it
    note(peer.readToEnd());
    EXPECT_LT(seen.size(), 20u);
    vxDiscardChain(chain());
    expectSums();
}

// The head of the read list holds `text` and goes on with a record given back when `torn`; the connection is
// lost with `missing` of `sent` bytes. What the next one gets, and what is counted.
TEST_F(Transfer, ANewConnectionBeginsWithAWholeRecord) {
    const struct {
        const char* text;
        bool torn;
        int sent, missing;
        const char* next;
        unsigned dropped;
    } rows[] = {
        {"a\nb\n", false, 0, 0, "a\nb\nlast\n", 0},      // nothing sent
        {"a\nb\n", false, 4, 0, "last\n", 0},            // all arrived
        {"aa\nbb\n", false, 3, 0, "bb\nlast\n", 0},      // a record boundary
        {"aa\nbb\n", false, 4, 0, "bb\nlast\n", 0},      // inside a record
        {"aa\nbb\n", false, 6, 4, "aa\nbb\nlast\n", 0},  // sent but not arrived
        {"tail\nbb\n", true, 2, 0, "bb\nlast\n", 1},     // its beginning is gone
        {"tail\nbb\n", true, 5, 0, "bb\nlast\n", 0},     // its end has arrived
        {"aa\nbb\n", false, 3, 99, "aa\nbb\nlast\n", 0},
        {"ta", true, 1, 0, "", 1},  // a record over two nodes
    };
    for (const auto& row : rows) {
        closeDumping(*app);
        openDumping(*app, 3, 64);
        chain().passOver = 0;
        const std::uint64_t before = chain().recordsDropped;
        dumpData(row.text, static_cast<std::int64_t>(std::strlen(row.text)));
        movePartialToReadList();
        dumpData("last\n", 5);
        movePartialToReadList();
        chain().headIsTorn = row.torn;
        if (VXBufferNode* head = chain().VXCollectorBB) head->offset = row.sent;
        chain().heldBytes = row.sent;
        vxConnectionGone(chain(), row.missing);
        vxConnectionGone(chain(), 0);  // closed once more
        std::string next;
        while (const VXBufferNode* node = vxNodeToSend(chain())) {
            next.append(node->buffer + node->offset, node->buffer + node->use_len);
            const_cast<VXBufferNode*>(node)->offset = node->use_len;
        }
        EXPECT_EQ(next, row.next);
        EXPECT_EQ(chain().recordsDropped - before, row.dropped) << row.text << row.sent;
    }
}

}  // namespace
}  // namespace vx::test
