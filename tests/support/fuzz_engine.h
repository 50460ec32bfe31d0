// A running instance without sockets, for fuzz targets that feed the engine: it captures everything. It is
// made anew now and then, so that tables stay small and an input meets little of what others left.
#pragma once

#include <apr_general.h>

#include <cstdlib>

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
        [[maybe_unused]] static const bool once = apr_initialize() == APR_SUCCESS && std::atexit(close) == 0;
        app = vxNewApplication();
        apr_pool_create(&app->pool, nullptr);
        vxSetCurrent(app);
        vxMakeContextMutexes(*app);
        VXSysInit("proxy");
        VXBCISettingInit();
        VXBTConfigModelInit();
        VXBackendMonitorInit();
        VXMethodMonitorInit();
        VXExceptionMonitorInit();
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
        vxFreeBtStore();
        vxFreeExceptionNames();
        setdefaultValuesForException();
        freeMethodTable(*app);
        vxAggFree(app->exceptionMonitor.exceptionArr);
        for (char* text : app->keywords.text) VXLB_FREE(text, "keyword text", -1);
        freeSharedTexts(*app);
        apr_pool_destroy(app->pool);
        freeRetiredTexts(app->retired);
        vxFreeApplication(app);
        app = nullptr;
    }

    static inline vxApplication* app = nullptr;
};

}  // namespace vx::test
