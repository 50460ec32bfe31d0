// What the fuzz targets of the texts about methods and exception classes share: an instance whose tables the
// texts fill, and what must hold behind each of them. The instance is made anew now and then, so that the
// table stays small.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "commonlibc/VXMetadataReplay.h"
#include "commonlibc/vxlb_clock.h"
#include "tests/support/knowledge_fixture.h"
#include "tests/support/shared_texts.h"

namespace vx::test {

class MethodTextRunner {
public:
    explicit MethodTextRunner(void (*parser)(char*)) : parser_(parser) {
        apr_initialize();
        VXProxy.ceilings.maxMethods = VXProxy.ceilings.maxExceptionRows = kCeiling;
        vxlb_set_clock_hooks({.now_us = nullptr, .sleep_us = [](std::int64_t) {}, .random_byte = nullptr});
    }
    ~MethodTextRunner() { close(); }
    MethodTextRunner(const MethodTextRunner&) = delete;
    MethodTextRunner& operator=(const MethodTextRunner&) = delete;

    // The first byte says in which state of the instance the text arrives; it is delivered twice.
    void run(const std::uint8_t* data, std::size_t size) {
        if (size == 0) return;
        if (inputs_++ % kInputsPerContext == 0) {
            close();
            open();
        }
        vxSetCurrent(app_);
        app_->data.data_thread_running = data[0] & 1;
        app_->Server.runtimeChange = data[0] >> 1 & 1;
        app_->Server.fileUpdatedAtRuntime = data[0] >> 2 & 1;
        for (int delivery = 0; delivery < 2; ++delivery) {
            std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
            parser_(text.data());
        }
        collectAndSendOnlyCached5Records(0, 1);
        check();
        test::clearDumped(*app_);
    }

private:
    static constexpr int kInputsPerContext = 500, kCeiling = 300;

    // No id is given twice, and none is above the counter.
    void check() const {
        std::set<std::uint32_t> ids;
        const VXMethodState_t& state = app_->method;
        for (const mPP* method = state.firstMethod; method; method = method->next)
            if (!ids.insert(method->methodId).second || method->methodId >= state.methodIdCounter)
                std::abort();
        if (ids.size() != state.methodCount || ids.size() > kCeiling + 2) std::abort();
        if (app_->exceptionMonitor.entryCount > kCeiling) std::abort();
    }
    void open() {
        app_ = vxNewApplication();
        apr_pool_create(&app_->pool, nullptr);
        vxSetCurrent(app_);
        vxMakeContextMutexes(*app_);
        VXSysInit("proxy");
        VXBCISettingInit();
        VXBackendMonitorInit();
        VXMethodMonitorInit();
        VXExceptionMonitorInit();
        openDumping(*app_, 2);
    }
    void close() {
        if (!app_) return;
        closeDumping(*app_);
        freeMethodTable(*app_);
        vxAggFree(app_->exceptionMonitor.exceptionArr);
        freeSharedTexts(*app_);
        freeRetiredTexts(app_->retired);
        apr_pool_destroy(app_->pool);
        vxFreeApplication(app_);
        app_ = nullptr;
    }

    void (*parser_)(char*);
    vxApplication* app_ = nullptr;
    int inputs_ = 0;
};

}  // namespace vx::test
