// A running instance without sockets, for fuzz targets that feed the engine: it captures everything. It is
// made anew now and then, so that tables stay small and an input meets little of what others left.
#pragma once

#include <cstdlib>
#include <utility>

#include "commonlibc/flowpath/VXFlowpathStop.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/knowledge_fixture.h"

// Between inputs, what stands only in a map of a pool counts as leaked.
extern "C" __attribute__((used)) inline const char* __lsan_default_suppressions() {
    return "leak:vxTagSequence\n";
}

namespace vx::test {

class FuzzEngine {
public:
    // The instance for the next input, current on this thread.
    static vxApplication& forInput() {
        constexpr int kInputsPerContext = 1000;
        static int inputs = 0;
        if (inputs++ % kInputsPerContext == 0) {
            close();
            open();
        }
        return *app;
    }
    // Forgets what the input left in flight.
    static void endInput() {
        vxDropBusyList();
        clearDumped(*app);
        app->decoder.partialLength = 0;
    }

private:
    static void open() {
        [[maybe_unused]] static const bool once = std::atexit(close) == 0;
        app = makeContext();
        makeKnowledge();
        openDumping(*app, 4);
        hashMapForAgent();
        app->flowpath.fpi_tls_map = create_hashmap(app->pool);
        vx_word_set(app->VXSys.bciInstrSessionPct, 100);
    }
    static void close() {
        if (!app) return;
        vxDropBusyList();
        vxFreeSlotPools();
        closeDumping(*app);
        freeKnowledge(*app);
        freeContext(std::exchange(app, nullptr));
    }

    static inline vxApplication* app = nullptr;
};

}  // namespace vx::test
