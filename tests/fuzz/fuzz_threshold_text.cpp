// Threshold texts: whatever they say, slow stays below very slow, for all and for each declared BT.
#include <cstddef>
#include <cstdint>

#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_rule_parser.h"
#include "commonlibc/vxbt/vxbt_thresholds.h"
#include "tests/support/bare_context.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const vx::test::RuleContext context;
    const vx::vxApplication& app = *context.app;
    const int declared =
        vx::vxbt_read_rule_file("7|A|2|0|/a|0\n7|B|3|0|/b|0\n7|Z|0|0|/z|0", vx::VXRuleSource::kText);
    vx::vxbt_read_threshold_file(vx::test::textOf(data, size).c_str(), vx::VXRuleSource::kText);
    vx::test::require(declared == 0);
    vx::test::require(app.bt.allSlowThreshold < app.bt.allVerySlowThreshold);
    for (const char* name : {"A", "B", "Z", "Others"}) {
        const vx::BTObject* object = vx::find_bt_obj_declared(name);
        vx::test::require(object && object->slowThreshold > 0);
        vx::test::require(object->slowThreshold < object->verySlowThreshold);
    }
    return 0;
}
