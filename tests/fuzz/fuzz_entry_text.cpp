// Texts about methods and exception classes: entry points, method monitors, exception monitors, and
// instrumentation profiles, one or several behind one another. The first byte says which, and in which state
// of the instance the text arrives; it is delivered twice.
#include <cstddef>
#include <cstdint>
#include <set>

#include "commonlibc/VXMetadataReplay.h"
#include "commonlibc/VXParsingFiles.h"
#include "tests/support/bare_context.h"
#include "tests/support/fuzz_engine.h"

namespace vx {
namespace {

constexpr std::int32_t kCeiling = 300;

// No id is given twice, and none is above the counter.
void check(const vxApplication& app) {
    std::set<std::uint32_t> ids;
    for (const mPP* method = app.method.firstMethod; method; method = method->next)
        test::require(ids.insert(method->methodId).second && method->methodId < app.method.methodIdCounter);
    test::require(ids.size() == app.method.methodCount && app.method.methodCount <= kCeiling + 2);
    test::require(app.exceptionMonitor.entryCount <= kCeiling);
}

}  // namespace
}  // namespace vx

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vx;
    if (size == 0) return 0;
    VXProxy.ceilings.maxMethods = VXProxy.ceilings.maxExceptionRows = kCeiling;
    vxlb_set_clock_hooks({.now_us = nullptr, .sleep_us = [](std::int64_t) {}, .random_byte = nullptr});
    vxApplication& app = test::FuzzEngine::forInput();
    app.data.data_thread_running = data[0] & 1;
    app.Server.runtimeChange = data[0] >> 1 & 1;
    app.Server.fileUpdatedAtRuntime = data[0] >> 2 & 1;
    constexpr void (*kParsers[])(char*) = {parseEntryFile, parseExceptionMonFile, parseMethodMonitor,
                                           setMethodHashMapNode};
    for (int delivery = 0; delivery < 2; ++delivery) {
        std::string text = test::textOf(data + 1, size - 1);
        kParsers[data[0] >> 6](text.data());
    }
    collectAndSendOnlyCached5Records(0, 1);
    check(app);
    test::FuzzEngine::endInput();
    return 0;
}
