// A ready context without sockets, for fuzz targets: made once, current on the calling thread. Waits of the
// code under test take no time.
#pragma once

#include <apr_general.h>

#include <utility>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_mem.h"
#include "tests/support/shared_texts.h"

namespace vx::test {

inline vxApplication& bareContext() {
    static vxApplication* const made = [] {
        apr_initialize();
        vxApplication* app = vxNewApplication();
        apr_pool_create(&app->pool, nullptr);
        vxSetCurrent(app);
        vxMakeContextMutexes(*app);
        VXSysInit("proxy");
        VXBCISettingInit();
        controlSockBufInit(*app);
        vxlb_set_clock_hooks({.now_us = nullptr, .sleep_us = [](std::int64_t) {}, .random_byte = nullptr});
        return app;
    }();
    return *made;
}

// What an input leaves behind: the next one starts on the same ground, and memory stays level.
inline void clearLink(vxApplication& app) {
    controlSockBufReset(app);
    VXLB_FREE(std::exchange(app.identity.startInstrumentation, nullptr), "start line", -1);
    renewSharedTexts(app);
    app.control.closeCtrlConFlag = 0;
    app.control.lateVerdict = 0;
    app.Server.replyReceived = 0;
    app.Server.stopping = 0;
}

}  // namespace vx::test
