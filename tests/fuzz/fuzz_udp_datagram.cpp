// Fuzz target: the bytes of a datagram, as a worker meets them.
//
// The first byte picks the sender's port and how much time passes before; the rest is the datagram. Functions
// come into being, run, are silent and end; an instance stands to which clients may attach themselves. No
// thread is started, answers go nowhere.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/proxyServer/vx_proxy_instance_link.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_udp_functions.h"
#include "commonlibc/proxyServer/vx_udp_message.h"
#include "commonlibc/proxyServer/vx_udp_watchers.h"
#include "commonlibc/vx_agent.h"
#include "commonlibc/vxlb_clock.h"
#include "tests/support/contexts.h"

// A context's clients stand in a map of its pool, where the leak detector does not look.
extern "C" __attribute__((used)) const char* __lsan_default_suppressions() {
    return "leak:newClient";
}

namespace vx {
namespace {

std::int64_t nowUs = 1'700'000'000'000'000;

void makeInstance() {
    vxApplication* app = vxNewApplication();
    setVXProxyInstance(*app);
    kwLocalStruct line{};
    std::strcpy(line.appName, "shop");
    std::strcpy(line.tierName, "Web");
    populateVXProxyInstance(*app, line, 1, 0);
    make_connection_with_vxc(*app, 0);
    app->Server.testRunRunning = 1;
    VXProxyInstance.load()[1] = app;
    VXProxy.numInstance = 2;
}

vxApplication* makeProcess() {
    vxlb_set_clock_hooks({[] { return nowUs; }, [](std::int64_t) {}, nullptr, [] { return nowUs; }});
    setenv("VXHOME", "/nonexistent", 1);
    vxFillUpcalls();
    apr_pool_create(&VXProxy.listenerPool, nullptr);
    VXProxy.instanceTableSize = kInstanceTableStart;
    VXProxy.udpTableSize = 2;
    VXProxy.ceilings.maxUdpFunctions = 4;
    vxMakeInstanceTables();
    vxUdpMakeTables();
    vxControlThreadStarter = [](vxApplication*) { return 0; };
    makeInstance();
    vxApplication* root = test::makeContext();
    VXBCISettingInit();
    VXProxyInstance.load()[0] = root;
    return root;
}

}  // namespace
}  // namespace vx

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    apr_initialize();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vx;
    static vxApplication* const root = makeProcess();
    if (size == 0) return 0;
    nowUs += std::int64_t{data[0]} * 10'000'000;
    vxSetCurrent(root);
    proxy_udp_client_handler(data[0]);
    proxy_udp_ruckus_handler(1);
    const std::size_t length = size - 1 < kUdpNodeSize - 1 ? size - 1 : kUdpNodeSize - 1;
    const auto block = std::make_unique<char[]>(length + 1);  // as a node holds it: terminated
    std::memcpy(block.get(), data + 1, length);
    decode_udp_Message_wrapper(block.get(), static_cast<std::int32_t>(length), {0x7F000001, data[0]});
    if (vxCurrent() != root) std::abort();
    vxUdpEachFunction([](vxApplication& app) { app.Server.testRunRunning = 1; });
    return 0;
}
