// Fixture: a ready context of its own for each test, on this thread.
#pragma once

#include <gtest/gtest.h>

#include "tests/support/contexts.h"

namespace vx::test {

class AppFixture : public testing::Test {
protected:
    void SetUp() override { app = makeContext(); }
    void TearDown() override { freeContext(app); }

    vxApplication* app = nullptr;
};

}  // namespace vx::test
