#include "bench/bench_instance.h"

#include <apr_general.h>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXMethodManager.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/backend/VXBackendMonitor.h"
#include "commonlibc/mm/VXMethodMonitor.h"
#include "commonlibc/vxbt/vxbt_config.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem_pool.h"
#include "commonlibc/vxlb_word.h"

namespace vx::bench {

vxApplication* openInstance() {
    apr_initialize();
    vxApplication* app = vxNewApplication();
    apr_pool_create(&app->pool, nullptr);
    vxSetCurrent(app);
    vxMakeContextMutexes(*app);
    VXSysInit("proxy");
    VXBCISettingInit();
    create_tls_pool(0);
    app->flowpath.fpi_tls_map = create_hashmap(app->pool);
    VXBTConfigModelInit();
    VXBackendMonitorInit();
    VXMethodMonitorInit();
    hashMapForAgent();
    vx_word_set(app->VXSys.bciInstrSessionPct, 100);
    buff_list_init();
    app->Server.testRunRunning = 1;
    app->data.data_thread_running = 1;
    return app;
}

std::int64_t drain(vxApplication& app) {
    VXBufferChain& chain = app.data.chain;
    movePartialToReadList(chain);
    std::int64_t bytes = 0;
    while (VXBufferNode* node = chain.VXCollectorBB.load(std::memory_order_acquire)) {
        bytes += node->use_len;
        node->use_len = 0;
        moveToWriteList(chain);
    }
    return bytes;
}

}  // namespace vx::bench
