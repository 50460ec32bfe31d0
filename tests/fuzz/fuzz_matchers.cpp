// The matchers of rules: a rule set out of the first lines, up to an empty one, and then a request:
//
//     u|matchType|mode|id|pattern|method     URL machine
//     h|matchType|0|id|expression            header machine
//     k|constraint|priority|id|keyword       custom rules
//     (empty line)
//     URL, query, method and header text, a line each
//
// An answer is an id that some rule has, or one of those that say that there is none.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "commonlibc/vxbt/vxbt_automaton.h"
#include "commonlibc/vxbt/vxbt_header_stage.h"
#include "commonlibc/vxbt/vxbt_state_machine.h"
#include "tests/support/bare_context.h"

namespace {

using vx::test::require;

std::string_view cut(std::string_view& rest, char separator) {
    const std::string_view part = rest.substr(0, rest.find(separator));
    rest.remove_prefix(part.size() < rest.size() ? part.size() + 1 : part.size());
    return part;
}

int number(std::string_view text) {
    return std::atoi(std::string(text.substr(0, 9)).c_str());
}

vx::VXBTCustomeRule custom;

void addRule(vx::VXBTRuleSet& rules, std::set<int>& ids, std::string_view line) {
    const std::string_view kind = cut(line, '|');
    const int first = number(cut(line, '|')), second = number(cut(line, '|')), id = number(cut(line, '|'));
    const std::string_view text = cut(line, '|');
    ids.insert(id);
    if (kind == "u")
        vx::vxlb_state_machine_add(&rules.urlMachine, text.data(), text.size(), line.data(), line.size(), id,
                                   first, second);
    if (kind == "h")
        vx::vxlb_state_machine_add_header(&rules.headerMachine, text.data(), text.size(), id, first);
    if (kind == "k")
        vx::add_to_lexicon(&custom, std::string(text).c_str(), second, std::to_string(id).c_str(),
                           static_cast<std::uint8_t>(first));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    static vx::VXBTRuleSet rules;
    std::set<int> ids = {-1, 1};
    vx::vxlb_build_lexicon(&custom);
    require(vx::vxlb_state_machine_init(&rules.urlMachine, 1) == 0);
    require(vx::vxlb_state_machine_init(&rules.headerMachine, 1) == 0);
    for (std::string_view line = cut(rest, '\n'); !line.empty(); line = cut(rest, '\n'))
        addRule(rules, ids, line);
    require(vx::vxlb_init_automaton(&rules.customMachine, &custom) > 0);

    const std::string url(cut(rest, '\n')), query(cut(rest, '\n')), method(cut(rest, '\n'));
    std::string header(cut(rest, '\n'));
    const int id = vx::vxlb_state_machine_search(
        &rules.urlMachine, url.data(), static_cast<std::int64_t>(url.size()), query.c_str(), method.c_str());
    require(ids.contains(id));
    const int ofHeader = vx::getBTHeader(&rules.headerMachine, header.data(), header.size(), id);
    require(ofHeader == 0 || ids.contains(ofHeader));
    if (const char* name = vx::search_match_machine(url.c_str(), &rules.customMachine, &custom))
        require(ids.contains(std::atoi(name)));

    vx::vxlb_state_machine_free(&rules.urlMachine);
    vx::vxlb_state_machine_free(&rules.headerMachine);
    vx::vxlb_free_automaton(&rules.customMachine);
    return 0;
}
