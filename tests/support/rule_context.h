// A ready context whose business transactions stand as after a start, for fuzz targets of the texts that
// configure them. BTs stay from one input to the next, as in an instance.
#pragma once

#include <cstdlib>
#include <string>

#include "commonlibc/vxbt/vxbt_config.h"
#include "tests/support/bare_context.h"

namespace vx::test {

inline void require(bool holds) {
    if (!holds) std::abort();
}

inline vxApplication& ruleContext() {
    static vxApplication* const made = [] {
        vxApplication& app = bareContext();
        VXBTConfigModelInit();
        return &app;
    }();
    return *made;
}

inline std::string textOf(const unsigned char* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

}  // namespace vx::test
