#include "commonlibc/vxlb_sock.h"

#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>

#include "tests/support/app_fixture.h"
#include "tests/support/fake_collector.h"
#include "tests/support/program.h"

namespace vx {
namespace {

constexpr std::int64_t kShortUs = 20000;
constexpr std::int64_t kLongUs = 5000000;

// Two connected sockets over loopback: `near` is under test, `far` plays the peer.
class Sockets : public test::AppFixture {
protected:
    void SetUp() override {
        std::signal(SIGPIPE, SIG_IGN);
        AppFixture::SetUp();
        listener = create_socket_and_bind(0, app->pool, error);
        ASSERT_TRUE(listener) << error;
        char ip[64];
        ASSERT_EQ(get_src_addr(listener, ip, sizeof(ip), &port), 0);
        near = vxlb_create_client_con("127.0.0.1", port, app->pool, kLongUs, error);
        ASSERT_TRUE(near) << error;
        ASSERT_EQ(apr_socket_accept(&far, listener, app->pool), APR_SUCCESS);
    }

    void peerSends(const std::string& bytes) {
        ASSERT_EQ(vxlb_send_n_bytes(far, bytes.data(), static_cast<std::int64_t>(bytes.size()), error),
                  static_cast<std::int64_t>(bytes.size()));
    }
    int readLine(char** pending = nullptr, int* length = nullptr) {
        return vxlb_read_line(near, buffer, sizeof(buffer), pending, length, error);
    }

    apr_socket_t *listener = nullptr, *near = nullptr, *far = nullptr;
    int port = 0;
    char error[kSockErrorSize] = "";
    char buffer[1024] = "";
};

TEST_F(Sockets, ReadLineTakesWhatItGetsUpToItsSize) {
    peerSends("one\ntw");
    EXPECT_EQ(readLine(), 6) << "what lies past the newline is held too";
    EXPECT_STREQ(buffer, "one\ntw");
    char* pending = buffer + 4;
    int length = 2;
    peerSends("o\n");
    EXPECT_EQ(readLine(&pending, &length), 4);
    EXPECT_STREQ(buffer, "two\n");
    EXPECT_EQ(pending, nullptr);

    peerSends(std::string(1100, 'z') + "\n");
    EXPECT_EQ(readLine(), kSockFull);
    EXPECT_EQ(std::string(buffer), std::string(1023, 'z'));
    for (const int held : {1023, 5000}) {  // a pending part that fills the buffer alone
        std::string text(static_cast<std::size_t>(held), 'p');
        pending = text.data();
        length = held;
        EXPECT_EQ(readLine(&pending, &length), kSockFull);
        EXPECT_EQ(std::string(buffer), std::string(1023, 'p'));
    }
}

TEST_F(Sockets, ReadsOfBytesKeepToTheirSizeAndTellTimeOutCloseAndOtherErrorsApart) {
    peerSends("abcdef");
    EXPECT_EQ(vxlb_read_n_bytes(near, buffer, 5, error), 4);
    EXPECT_STREQ(buffer, "abcd");
    EXPECT_EQ(vxlb_read_bytes(near, buffer, 100, error), 2);
    EXPECT_STREQ(buffer, "ef");

    apr_socket_timeout_set(near, kShortUs);
    EXPECT_EQ(readLine(), kSockTimeout);
    EXPECT_EQ(vxlb_read_n_bytes(near, buffer, 10, error), kSockTimeout);
    EXPECT_EQ(vxlb_read_bytes(near, buffer, 10, error), kSockFailed);

    apr_socket_close(far);
    EXPECT_EQ(readLine(), kSockClosed);
    EXPECT_EQ(vxlb_read_n_bytes(near, buffer, 10, error), -2);
    EXPECT_EQ(vxlb_read_bytes(near, buffer, 10, error), -2);
}

TEST_F(Sockets, SendsTellTimeOutAndCloseApart) {
    apr_socket_timeout_set(near, kShortUs);
    const std::string flood(64 << 20, 'f');
    EXPECT_EQ(vxlb_send_n_bytes(near, flood.data(), static_cast<std::int64_t>(flood.size()), error),
              kSockTimeout);
    apr_socket_close(far);
    EXPECT_EQ(vxlb_send_n_bytes(near, flood.data(), static_cast<std::int64_t>(flood.size()), error), -2);
}

TEST_F(Sockets, APortThatIsTakenMayBeTriedForMonths) {
    const long before = test::residentKb(::getpid());
    for (int i = 0; i < 20000; ++i) ASSERT_EQ(create_socket_and_bind(port, app->pool, error), nullptr);
    EXPECT_NE(std::string(error), "");
    EXPECT_LT(test::residentKb(::getpid()) - before, 4096 + test::kSanitizerGrowthKb);
}

TEST_F(Sockets, ConnectsFailWithATextAndInTime) {
    apr_socket_close(listener);
    EXPECT_EQ(vxlb_create_client_con("127.0.0.1", port, app->pool, -1, error), nullptr);
    EXPECT_NE(std::string(error).find("refused"), std::string::npos) << error;
    EXPECT_EQ(vxlb_create_client_con("300.1.2.3", port, app->pool, kLongUs, error), nullptr);
    EXPECT_EQ(vxlb_create_client_con("127.0.0.1", 65536 + port, app->pool, kLongUs, error), nullptr);

    const test::FakeCollector full;  // nobody accepts: once its queue is full, a connect gets no answer
    ASSERT_EQ(::listen(full.descriptor(), 0), 0);
    int connected = 0;
    while (connected < 8 && vxlb_create_client_con("127.0.0.1", full.port(), app->pool, kShortUs, error))
        ++connected;
    EXPECT_LT(connected, 8);
    EXPECT_NE(std::string(error).find("timeout"), std::string::npos) << error;
}

TEST_F(Sockets, AShutDownFromBesideEndsTheRead) {
    VXSharedSocket handle{};
    ASSERT_EQ(apr_thread_mutex_create(&handle.closeMutex, APR_THREAD_MUTEX_NESTED, app->pool), APR_SUCCESS);
    vxlb_shared_shutdown(handle);
    vxlb_shared_close(handle);
    vxlb_shared_put(handle, near);

    std::thread other([&] { vxlb_shared_shutdown(handle); });
    EXPECT_EQ(vxlb_read_bytes(near, buffer, sizeof(buffer), error), kSockClosed);
    other.join();
    EXPECT_EQ(handle.get(), near) << "only its owner closes it";
    vxlb_shared_close(handle);
    EXPECT_EQ(handle.get(), nullptr);
}

}  // namespace
}  // namespace vx
