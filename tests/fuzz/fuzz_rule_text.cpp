// Rule texts: whatever they say, each line is told once, and lookups find a BT of the store or none.
#include <cstddef>
#include <cstdint>
#include <set>

#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_rule_execute.h"
#include "commonlibc/vxbt/vxbt_rule_parser.h"
#include "tests/support/bare_context.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const vx::test::RuleContext context;
    vx::vxApplication& app = *context.app;
    const std::string text = vx::test::textOf(data, size);
    std::set<int> told;
    const auto base = size % 8 == 0 ? vx::VXRuleBuild::Base::kStart : vx::VXRuleBuild::Base::kInForce;
    app.Server.runtimeChange = size % 2;
    vx::vxbt_read_rule_file(
        text.c_str(), vx::VXRuleSource::kText, base,
        [](const vx::VXRuleLine& line, void* numbers) {
            vx::test::require(static_cast<std::set<int>*>(numbers)->insert(line.number).second);
        },
        &told);
    for (const char* url : {"/", "/a", "/a/b/c?", "/shop/cart/1"}) {
        char headers[] = "A=1&Shop=eu&CustomeHeader=%124x&";
        const vx::BTObject* object = vx::get_obj_from_bt_name(url, "id=1&x=2", headers, nullptr, "GET");
        if (object) vx::test::require(vx::find_bt_obj_in_manager_map(object->btName) != nullptr);
    }
    return 0;
}
