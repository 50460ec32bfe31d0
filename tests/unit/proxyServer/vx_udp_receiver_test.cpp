#include "commonlibc/proxyServer/vx_udp_receiver.h"

#include "tests/support/udp_fixture.h"

namespace vx::test {
namespace {

class UdpIntake : public UdpFixture {
protected:
    void SetUp() override {
        UdpFixture::SetUp();
        VXProxy.proxyPort = portOf(VXUdp.socket);  // free again in a moment
        vx_platform_udp_close(std::exchange(VXUdp.socket, -1));
        VXProxy.numUDPThreads = 1;
        vxUdpStart();
    }
    void TearDown() override {
        vxUdpStop();
        vxSetCurrent(app);
        UdpFixture::TearDown();
    }
};

TEST_F(UdpIntake, AnswersOverItsSocketWhateverCameBeforeAndAfterANewStart) {
    for (int start = 1; start <= 2; ++start) {
        SCOPED_TRACE(start);
        while (answer(1) == "(none)")
            send(introduced(VXWrapType::kPendingRuckus, "pay"));  // it opens its port
        for (const std::size_t size : {0U, 1U, 44U}) send(std::string(size, '^'));
        send(wrapped(VXWrapType::kLogText, 0, std::string(60000 - 10000, 'x')));
        for (int i = 0; i < 50; ++i) send(wrapped(VXWrapType::kHeartbeat, 0));  // with four nodes
        for (int heard = 0; heard < 50;) {
            const std::string text = answer();
            ASSERT_NE(text, "(none)") << heard;
            heard += text == "Heart Beat Received";  // what the first ones are answered is passed over
        }
        vxUdpStop();
        EXPECT_TRUE(!VXUdp.workers && !VXUdp.freeList.head && VXUdp.socket == -1);
        vxUdpStart();
    }
}

}  // namespace
}  // namespace vx::test
