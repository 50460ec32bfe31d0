// Pattern state machine: finds the rule of a URL, its query and its method in one walk.
//
// All patterns of a machine share one trie; a "*" marks the state that it stands at, and a walk that finds no
// way on returns to the last such state and goes on one character further. States of a URL are followed by
// those of a query parameter (behind a "*") or of a method name:
//
//     /a*z            URL pattern
//     /a*id=1*        URL "/a", behind it the parameter "id=1"
//     /a + GET        URL "/a" (hasMethod), behind it the method
//
//     exact[s]        the text ends at s, and no "*" was needed on the way to a query or method
//     partial[s]      the text may go on behind s: the longest such prefix is the answer where nothing else
//     is
//
// A second machine of the same kind holds header pairs, keyed by the id ("2&Shop=eu").
//
// Limits    Characters 32 to 127. A machine has at most kMachineStatesLimit states (16 bytes each, and 384
// for
//           a state with several transitions).
// Errors    -1 as told; nothing that fails changes what is found.
// Threads   Filled by one thread and then only read, by any. A search takes no memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "commonlibc/context/VXRuleSet.h"

namespace vx {

inline constexpr std::int32_t kMachineStatesLimit = 1 << 20;
inline constexpr std::size_t kHeaderKeySize = 16;

// Room for `maxStates` states (below 1: 128, at most 65,536) and the start state; it grows as patterns come.
// What `machine` held is freed. 0, or -1 without memory: the machine then is not usable.
int vxlb_state_machine_init(vxlb_state_machine* machine, std::int32_t maxStates);
// Gives the memory back; the machine is not usable afterwards.
void vxlb_state_machine_free(vxlb_state_machine* machine);

// Adds the pattern of a rule with its id (above 0, or kBtIdExcluded). matchType 1: partial, else exact. With
// a mode above 1, `second` is the method that is asked for too. 0; or -1: not a usable machine, an empty
// text, a character out of range, too many states or no memory. A run of "*" counts as one.
int vxlb_state_machine_add(vxlb_state_machine* machine, const char* pattern, std::size_t patternLength,
                           const char* second, std::size_t secondLength, std::int32_t id,
                           std::int32_t matchType, std::int32_t mode);
// What the header expressions of an id stand behind: the id and "&", so that ids cannot run into each other.
std::string_view vxlb_state_machine_header_key(std::int32_t id, char (&buffer)[kHeaderKeySize]);
// Adds the header expression of a rule under its id; answers as above.
int vxlb_state_machine_add_header(vxlb_state_machine* machine, const char* expression, std::size_t length,
                                  std::int32_t id, std::int32_t matchType);

// The id of the rule for a request; -1: none, or a character out of range; 1 where the machine is not usable
// or the URL is missing or empty. `query` and `method` may be null.
std::int32_t vxlb_state_machine_search(const vxlb_state_machine* machine, const char* url,
                                       std::int64_t length, const char* query, const char* method);

inline bool vxlb_state_machine_usable(const vxlb_state_machine* machine) {
    return machine && machine->capacity > 0 && machine->nextState > 0;
}
inline bool vxlb_state_machine_takes(char c) {
    const auto value = static_cast<std::uint8_t>(c);
    return value >= kMachineFirstChar && value <= kMachineLastChar;
}
// The state behind `state` on a character in range; 0: no transition.
inline std::int32_t vxlb_state_machine_next(const vxlb_state_machine& machine, std::int32_t state, char c) {
    const vxlb_machine_state& from = machine.states[state];
    if (from.sole == static_cast<std::uint8_t>(c)) return from.next;
    return from.sole == kStateHasRow ? machine.rows[from.next][c - kMachineFirstChar] : 0;
}

}  // namespace vx
