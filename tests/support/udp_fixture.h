// Fixture: the UDP intake without its threads. Datagrams are handed to the decoder; answers go to a socket
// that the test reads. Functions have no control threads: they stand as if theirs had ended.
#pragma once

#include <string>

#include "commonlibc/platform/vx_platform_udp.h"
#include "commonlibc/proxyServer/vx_udp_clients.h"
#include "commonlibc/proxyServer/vx_udp_functions.h"
#include "commonlibc/proxyServer/vx_udp_message.h"
#include "commonlibc/proxyServer/vx_udp_release.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "tests/support/fake_clock.h"
#include "tests/support/proxy_fixture.h"
#include "tests/support/udp_messages.h"

namespace vx::test {

class UdpFixture : public ProxyFixture {
protected:
    void SetUp() override {
        ProxyFixture::SetUp();
        vxControlThreadStarter = [](vxApplication*) { return 0; };
        VXProxy.udpTableSize = 2;
        VXProxy.ceilings = {};
        ASSERT_TRUE(vxUdpMakeTables());
        char error[128];
        VXUdp.socket = vx_platform_udp_open(0, 65536, error, sizeof(error));
        client_ = vx_platform_udp_open(0, 65536, error, sizeof(error));
    }
    void TearDown() override {
        clock.advanceMs(3600 * 1000);
        vxUdpEndSilentFunctions(clock.steadyMs());
        vx_platform_udp_close(std::exchange(VXUdp.socket, -1));
        vx_platform_udp_close(client_);
        while (vxApplication* free = VXUdp.freeContexts) {
            VXUdp.freeContexts = free->udp.nextFree;
            vxUdpRenew(*free);
            apr_pool_destroy(free->udp.mutexPool);
            vxFreeApplication(free);
        }
        vxSetCurrent(app);
        vxFreeSlotPools();
        ProxyFixture::TearDown();
    }

    // Hands the decoder a datagram that came from the test's socket, or from another port.
    void datagram(const std::string& bytes, std::uint16_t port = 0) {
        decode_udp_Message_wrapper(bytes.data(), static_cast<std::int32_t>(bytes.size()),
                                   {0x7F000001, port ? port : static_cast<std::uint16_t>(portOf(client_))});
        EXPECT_EQ(vxCurrent(), app);
    }
    // The same over the test's own socket, towards the intake.
    void send(const std::string& bytes) const {
        const auto port = static_cast<std::uint16_t>(VXProxy.proxyPort);
        EXPECT_TRUE(vx_platform_udp_send(client_, bytes.data(), bytes.size(), {0x7F000001, port}));
    }
    // The next answer; "(none)" when none comes within so many seconds. Loopback may take its time, too.
    std::string answer(int seconds = 60) const {
        char buffer[20000];
        VXDatagramRoom room{buffer, 0, {}};
        int count = vx_platform_udp_receive(client_, &room, 1, sizeof(buffer), false);
        for (int i = 0; count == kNoDatagram && i < seconds; ++i)
            count = vx_platform_udp_receive(client_, &room, 1, sizeof(buffer), true);
        return count < 0 ? "(none)" : std::string(buffer, static_cast<std::size_t>(room.length));
    }
    static vxApplication* function(std::int32_t index) {
        vxApplication* found = vxUdpPin(index);
        if (found) vxUdpUnpin(*found);
        return found;
    }

    FakeClock clock;

private:
    int client_ = -1;
};

}  // namespace vx::test
