// What an agent says on a text connection, registration and relay: any bytes, as one read brings them. The
// first byte tells whether the connection has registered before.
#include <apr_portable.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "commonlibc/proxyServer/vx_proxy_instance_link.h"
#include "commonlibc/proxyServer/vx_proxy_poll.h"
#include "commonlibc/proxyServer/vx_proxy_read.h"
#include "commonlibc/proxyServer/vx_proxy_registration.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "tests/support/bare_context.h"

namespace {

char home[] = "/tmp/vxfuzz.XXXXXX";

// The agent side without its loop and without control threads, made once.
void makeAgentSide() {
    static const bool made = [] {
        vx::vxApplication& root = vx::test::bareContext();
        vx::VXProxy.vxHomePath = mkdtemp(home);
        vx::VXProxy.instanceTableSize = vx::kInstanceTableStart;
        vx::VXProxy.proxyMode = 1;
        vx::VXProxy.ceilings.maxInstances = vx::VXProxy.ceilings.maxProcesses = 3;
        apr_pool_create(&vx::VXProxy.listenerPool, nullptr);
        vx::vxMakeInstanceTables();
        vx::VXProxyInstance.load()[0] = &root;
        vx::VXProxy.numInstance = 1;
        vx::vxMakePollset();
        vx::setResetSocketBuffer(vx::VXProxy.controlBuf);
        vx::vxControlThreadStarter = [](vx::vxApplication* app) {
            app->control.controlThreadId = 1;
            return 0;
        };
        return true;
    }();
    static_cast<void>(made);
}

void closeEverything() {
    for (std::int32_t i = 1; i < vx::VXProxy.numInstance; ++i) {
        const vx::vxApplication& app = *vx::instanceAt(i);
        for (std::int32_t j = 0; j < app.identity.numProcess; ++j) {
            vx::vxCloseConnection(*vx::processAt(app, j), vx::VXConnection::kDiscovery, true);
            vx::closeAllConnectionsOfProcess(i, j);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    makeAgentSide();
    int ends[2];
    if (size == 0 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 0;
    apr_pool_t* pool = nullptr;
    apr_pool_create(&pool, vx::VXProxy.listenerPool);
    apr_socket_t* socket = nullptr;
    apr_os_sock_put(&socket, &ends[0], pool);
    vx::epollPtr_t* address = nullptr;
    if (data[0] & 1) {
        char line[] = "appName=a;tierName=b;vxAppServerHost=c;agentName=d;pid=7";
        vx::parseProxyMsgReq(socket, line, &address, vx::kConTypeControl);
    }
    vx::VXReadBuffer& buffer = vx::VXProxy.controlBuf;
    vx::setResetSocketBuffer(buffer);
    const std::size_t count = std::min(size - 1, static_cast<std::size_t>(vx::kReadBufSize) - 1);
    std::memcpy(buffer.buffer, data + 1, count);
    buffer.buffer[count] = '\0';
    buffer.remaining = buffer.writeOffset = static_cast<std::int32_t>(count);
    vx::processdatamsg(socket, buffer, &address);
    closeEverything();
    if (!vx::vxSocketClosed(socket)) vx::cleanAndRemoveSocket(socket, false);
    vx::vxEndPollRound();
    ::close(ends[1]);
    apr_int32_t events = 0;
    const apr_pollfd_t* signalled = nullptr;
    apr_pollset_poll(vx::VXProxy.pollset, 0, &events, &signalled);  // it takes removed entries back here
    if (vx::VXProxy.polledSockets != 0) std::abort();               // no way out may leave a socket behind
    return 0;
}
