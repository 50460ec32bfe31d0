// Fixture: a ready context of its own for each test, on this thread.
#pragma once

#include <apr_general.h>
#include <gtest/gtest.h>

#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "tests/support/shared_texts.h"

namespace vx::test {

// One zeroed context with pool, mutexes and the general defaults, current on the test's thread.
class AppFixture : public testing::Test {
protected:
    void SetUp() override {
        apr_initialize();
        app = vxNewApplication();
        apr_pool_create(&app->pool, nullptr);
        vxSetCurrent(app);
        vxMakeContextMutexes(*app);
        VXSysInit("proxy");
    }
    void TearDown() override {
        vxSetCurrent(nullptr);
        freeSharedTexts(*app);
        apr_pool_destroy(app->pool);
        vxFreeApplication(app);
        apr_terminate();
    }

    vxApplication* app = nullptr;
};

}  // namespace vx::test
