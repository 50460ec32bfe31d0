// Custom rule automaton: finds all keywords of the custom rules in one pass over a text.
//
// The lexicon holds the keywords, each with a BT name, a priority and a constraint on its place:
//
//     1  the text starts with it           3  it stands behind the first character
//     2  the text ends with it             4  it is the whole text
//     any other: it never counts
//
// Of the occurrences that count, the one of the highest priority names the BT; among equals the later one in
// the text, and at the same place the later keyword. There are 32 output bits: keyword 33 shares that of the
// first, and wherever one of the two ends, both are asked for their constraint, each with its own length.
//
// Limits    40 keywords of 1 to 256 characters from " " to "~"; longer ones are cut. One pass costs one load
// a
//           character, and per found keyword a look at the lexicon.
// Errors    -1 as told; a lexicon that refuses a keyword is as before.
// Threads   Built by one thread and then only read, by any. A search takes no memory.
#pragma once

#include <cstdint>

#include "commonlibc/context/VXRuleSet.h"

namespace vx {

inline constexpr std::uint8_t kMatchStartsWith = 1, kMatchEndsWith = 2, kMatchContains = 3, kMatchEquals = 4;

// Forgets all custom rules: keywords, mode, parameters.
void vxlb_build_lexicon(VXBTCustomeRule* rule);
// Adds a keyword; 0. -1: null, empty or with a byte outside 32 to 126, or the lexicon is full (traced).
int add_to_lexicon(VXBTCustomeRule* rule, const char* keyword, std::int32_t priority, const char* btName,
                   std::uint8_t constraint);

// Builds the automaton of a lexicon; what `machine` held is freed. The number of states, or -1: null, or no
// memory; the machine then is empty.
int vxlb_init_automaton(vxlbTrie* machine, const VXBTCustomeRule* rule);
// The second step of vxlb_init_automaton: fills a machine that has rows for all keywords.
int create_match_machine(vxlbTrie* machine, const VXBTCustomeRule* rule);
// Gives the memory back; the machine is empty afterwards.
void vxlb_free_automaton(vxlbTrie* machine);

// The state after one character; a character without a column leads to the root.
std::int32_t find_next_state(const vxlbTrie& machine, std::int32_t state, char character);
// Whether an occurrence of a keyword at `start` counts in a text of that length.
bool check_for_match_constraint(const VXBTCustomeRule& rule, std::int32_t keyword, std::int32_t start,
                                std::int32_t textLength);
// The BT name of the best occurrence, good as long as `rule`; null when there is none, or no machine.
const char* search_match_machine(const char* text, const vxlbTrie* machine, const VXBTCustomeRule* rule);

}  // namespace vx
