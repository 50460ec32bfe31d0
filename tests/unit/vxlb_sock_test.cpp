#include "commonlibc/vxlb_sock.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "tests/support/app_fixture.h"
#include "tests/support/program.h"
#include "tests/support/sanitizer_growth.h"

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
    EXPECT_EQ(length, 0);
}

TEST_F(Sockets, ReadLineGivesUpWithAFullBuffer) {
    peerSends(std::string(1100, 'z') + "\n");
    EXPECT_EQ(readLine(), kSockFull);
    EXPECT_EQ(std::string(buffer), std::string(1023, 'z'));

    std::string held(1023, 'p');
    char* pending = held.data();
    int length = 1023;
    EXPECT_EQ(readLine(&pending, &length), kSockFull);
    EXPECT_EQ(std::string(buffer), held) << "nothing is read behind a pending part that fills the buffer";

    std::string tooLong(5000, 'q');
    pending = tooLong.data();
    length = 5000;
    EXPECT_EQ(readLine(&pending, &length), kSockFull);
    EXPECT_EQ(std::string(buffer), std::string(1023, 'q'));
}

TEST_F(Sockets, ReadsTellTimeOutCloseAndOtherErrorsApart) {
    apr_socket_timeout_set(near, kShortUs);
    EXPECT_EQ(readLine(), kSockTimeout);
    EXPECT_EQ(vxlb_read_n_bytes(near, buffer, 10, error), kSockTimeout);
    EXPECT_EQ(vxlb_read_bytes(near, buffer, 10, error), kSockFailed);

    apr_socket_close(far);
    EXPECT_EQ(readLine(), kSockClosed);
    EXPECT_EQ(vxlb_read_n_bytes(near, buffer, 10, error), -2);
    EXPECT_EQ(vxlb_read_bytes(near, buffer, 10, error), -2);
}

TEST_F(Sockets, ReadsOfBytesKeepToTheirSize) {
    peerSends("abcdefgh");
    EXPECT_EQ(vxlb_read_n_bytes(near, buffer, 5, error), 4);
    EXPECT_STREQ(buffer, "abcd");
    EXPECT_EQ(vxlb_read_bytes(near, buffer, 3, error), 2);
    EXPECT_STREQ(buffer, "ef");
    EXPECT_EQ(vxlb_read_n_bytes(near, buffer, 1, error), 0);
    EXPECT_EQ(vxlb_read_bytes(near, buffer, 1, error), -2);
    EXPECT_EQ(vxlb_read_bytes(near, buffer, 100, error), 2);
    EXPECT_STREQ(buffer, "gh");
}

TEST_F(Sockets, SendsTellWhatHappened) {
    EXPECT_EQ(vxlb_send_n_bytes(near, "abc", 0, error), 0);
    EXPECT_EQ(vxlb_send_n_bytes(nullptr, "abc", 3, error), -2);
    EXPECT_EQ(vxlb_sendto_n_bytes(nullptr, nullptr, "abc", 3, error), -2);

    apr_socket_timeout_set(near, kShortUs);
    const std::string flood(64 << 20, 'f');
    EXPECT_EQ(vxlb_send_n_bytes(near, flood.data(), static_cast<std::int64_t>(flood.size()), error),
              kSockTimeout);
    apr_socket_close(far);
    EXPECT_EQ(vxlb_send_n_bytes(near, flood.data(), static_cast<std::int64_t>(flood.size()), error), -2);
}

TEST_F(Sockets, ConnectsFailWithATextAndInTime) {
    const long before = test::residentKb(::getpid());
    for (int i = 0; i < 20000; ++i)
        ASSERT_EQ(create_socket_and_bind(port, app->pool, error), nullptr) << "the port is taken";
    EXPECT_NE(std::string(error), "");
    EXPECT_LT(test::residentKb(::getpid()) - before, 4096 + test::kSanitizerGrowthKb)
        << "it is tried for months";
    apr_socket_close(listener);
    EXPECT_EQ(vxlb_create_client_con("127.0.0.1", port, app->pool, -1, error), nullptr);
    EXPECT_NE(std::string(error).find("refused"), std::string::npos) << error;
    for (const char* host : {"", "300.1.2.3"})
        EXPECT_EQ(vxlb_create_client_con(host, port, app->pool, kLongUs, error), nullptr) << host;
    EXPECT_EQ(vxlb_create_client_con(nullptr, port, app->pool, kLongUs, nullptr), nullptr);
    EXPECT_EQ(vxlb_create_client_con("127.0.0.1", 65536 + port, app->pool, kLongUs, error), nullptr);

    app->VXSys.proxyMode = 1;
    app->VXSys.proxyConType = 1;
    EXPECT_EQ(vxlb_create_client_con("127.0.0.1", port, app->pool, kLongUs, error), nullptr);
}

TEST_F(Sockets, AConnectThatNobodyAnswersEndsWithItsTime) {
    const int full = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* anyAddress = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(full, anyAddress, size), 0);
    ASSERT_EQ(listen(full, 0), 0);  // nobody accepts: the second connect already gets no answer
    ASSERT_EQ(getsockname(full, anyAddress, &size), 0);

    const auto began = std::chrono::steady_clock::now();
    int connected = 0;
    while (connected < 8 &&
           vxlb_create_client_con("127.0.0.1", ntohs(address.sin_port), app->pool, kShortUs, error))
        ++connected;
    EXPECT_LT(connected, 8);
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(3));
    EXPECT_NE(std::string(error).find("timeout"), std::string::npos) << error;
    close(full);
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
