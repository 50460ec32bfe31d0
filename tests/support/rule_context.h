// A ready context whose business transactions stand as after a start, for fuzz targets of the texts that
// configure them: of one input, which leaves nothing behind.
#pragma once

#include <cstdlib>
#include <string>

#include "commonlibc/vxbt/vxbt_config.h"
#include "tests/support/bare_context.h"
#include "tests/support/shared_texts.h"

namespace vx::test {

inline void require(bool holds) {
    if (!holds) std::abort();
}

class RuleContext {
public:
    RuleContext() {
        static const apr_status_t ready = apr_initialize();
        require(ready == APR_SUCCESS);
        apr_pool_create(&app->pool, nullptr);
        vxSetCurrent(app);
        vxMakeContextMutexes(*app);
        VXSysInit("proxy");
        VXBCISettingInit();
        VXBTConfigModelInit();
    }
    ~RuleContext() {
        vxFreeBtStore();
        freeSharedTexts(*app);
        apr_pool_destroy(app->pool);
        vxSetCurrent(nullptr);
        vxFreeApplication(app);
    }
    RuleContext(const RuleContext&) = delete;
    RuleContext& operator=(const RuleContext&) = delete;

    vxApplication* const app = vxNewApplication();
};

inline std::string textOf(const unsigned char* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

}  // namespace vx::test
