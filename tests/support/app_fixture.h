// Fixture: a ready context of its own for each test, on this thread. Ceilings and upcalls that a test has set
// end with it.
#pragma once

#include <gtest/gtest.h>

#include "commonlibc/vx_upcalls.h"
#include "tests/support/contexts.h"

namespace vx::test {

class AppFixture : public testing::Test {
protected:
    void SetUp() override { app = makeContext(); }
    void TearDown() override {
        freeContext(app);
        VXProxy.ceilings = {};
        vxUpcalls = {};
    }

    vxApplication* app = nullptr;
};

}  // namespace vx::test
