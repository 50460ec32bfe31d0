// Error rules: whatever they say, each status is ok or an error.
#include <cstddef>
#include <cstdint>

#include "commonlibc/ServerErrorRules.h"
#include "tests/support/rule_context.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const vx::vxApplication& app = vx::test::bareContext();
    vx::parseBtError(vx::test::textOf(data, size).c_str());
    for (const auto& mark : app.VXBCISetting.btErrorArray) vx::test::require(mark == 'T' || mark == 'F');
    return 0;
}
