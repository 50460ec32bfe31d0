// Fuzz target: the bytes of an agent's data connection, cut into reads of one size.
//
// The first byte picks the size of a read (0: all at once); the rest is the stream. The context is that of
// a running instance which captures everything; it is made anew now and then, so that tables stay small.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "commonlibc/flowpath/VXFlowpathStop.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/knowledge_fixture.h"
#include "tests/support/record_stream.h"
#include "tests/support/shared_texts.h"

namespace vx {
namespace {

constexpr int kInputsPerContext = 1000;

vxApplication* openContext() {
    vxApplication* app = vxNewApplication();
    apr_pool_create(&app->pool, nullptr);
    vxSetCurrent(app);
    vxMakeContextMutexes(*app);
    VXSysInit("proxy");
    VXBCISettingInit();
    VXBTConfigModelInit();
    VXBackendMonitorInit();
    VXMethodMonitorInit();
    test::openDumping(*app, 2);
    hashMapForAgent();
    app->flowpath.fpi_tls_map = create_hashmap(app->pool);
    vx_word_set(app->VXSys.bciInstrSessionPct, 100);
    return app;
}

void closeContext(vxApplication* app) {
    vxDropBusyList();
    vxFreeSlotPools();
    test::closeDumping(*app);
    vxFreeBtStore();
    test::freeMethodTable(app->method);
    test::freeSharedTexts(*app);
    apr_pool_destroy(app->pool);
    freeRetiredTexts(app->retired);
    vxFreeApplication(app);
}

vxApplication* context = nullptr;  // of the inputs since it was made anew

void closeLastContext() {
    if (context) closeContext(context);
}

}  // namespace
}  // namespace vx

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    apr_initialize();
    std::atexit(vx::closeLastContext);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vx;
    static int inputs = 0;
    if (size == 0) return 0;
    if (!context) context = openContext();
    vxApplication* app = context;
    const std::size_t step = data[0] ? data[0] : size;
    const std::string stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (std::size_t at = 0; at < stream.size(); at += step) test::readBytes(*app, stream.substr(at, step));
    decodeMessage(stream.data(), static_cast<std::int32_t>(stream.size()), 0, 1, "request");
    vxDropBusyList();
    test::clearDumped(*app);
    app->decoder.partialLength = 0;
    if (++inputs % kInputsPerContext == 0) {
        closeContext(app);
        context = nullptr;
    }
    return 0;
}
