// Contexts without sockets, for fuzz targets, and what such a target says of an input.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/vxbt/vxbt_config.h"
#include "commonlibc/vxlb_clock.h"
#include "tests/support/contexts.h"

namespace vx::test {

inline void require(bool holds) {
    if (!holds) std::abort();
}

inline std::string textOf(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// Made once. Waits of the code under test take no time.
inline vxApplication& bareContext() {
    static vxApplication* const made = [] {
        vxApplication* app = makeContext();
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

// Of one input: business transactions stand as after a start, and nothing is left behind.
class RuleContext {
public:
    RuleContext() {
        VXBCISettingInit();
        VXBTConfigModelInit();
    }
    ~RuleContext() {
        vxSetCurrent(app);
        vxFreeBtStore();
        freeContext(app);
    }
    RuleContext(const RuleContext&) = delete;
    RuleContext& operator=(const RuleContext&) = delete;

    vxApplication* const app = makeContext();
};

}  // namespace vx::test
