#include "commonlibc/vxbt/vxbt_automaton.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::int16_t kNone = -1;
constexpr const char* kBlockName = "custom rule automaton";

bool hasColumn(char c) {
    const auto value = static_cast<std::uint8_t>(c);
    return value >= kTrieFirstChar && value <= kTrieLastChar;
}

template <class T>
T* makeTable(std::size_t count) {
    return static_cast<T*>(VXLB_MALLOC_AND_MEMSET(count * sizeof(T), kBlockName, -1));
}

// The keywords as paths from the root; the number of states.
std::int32_t addKeywords(vxlbTrie& machine, const VXBTCustomeRule& rule) {
    std::int16_t nextState = 1;
    std::uint32_t mask = 1;
    for (std::int32_t i = 0; i < rule.lexiconCount; ++i, mask = std::rotl(mask, 1)) {
        std::int16_t state = 0;
        for (const char* at = rule.lexicon[i].keyword; *at; ++at) {
            std::int16_t& next = machine.rows[state][*at - kTrieFirstChar];
            if (next == kNone) next = nextState++;
            state = next;
        }
        machine.out_func[state] |= mask;
    }
    return nextState;
}

// Breadth first, so that a state's failure, which is nearer to the root, is complete before it: each missing
// transition becomes that of the failure. `queue` has room for all states.
void followFailures(vxlbTrie& machine, std::int16_t* queue) {
    std::int32_t head = 0, tail = 0;
    for (std::int16_t& next : machine.rows[0]) {
        if (next == kNone) {
            next = 0;
        } else {
            queue[tail++] = next;
        }
    }
    while (head < tail) {
        const std::int16_t state = queue[head++];
        const auto& ofFailure = machine.rows[machine.f_func[state]];
        for (std::int32_t c = 0; c < kTrieChars; ++c) {
            std::int16_t& next = machine.rows[state][c];
            if (next == kNone) {
                next = ofFailure[c];
                continue;
            }
            machine.f_func[next] = ofFailure[c];
            machine.out_func[next] |= machine.out_func[ofFailure[c]];
            queue[tail++] = next;
        }
    }
}

bool makeTables(vxlbTrie& machine, std::size_t states) {
    machine.rows =
        static_cast<std::int16_t(*)[kTrieChars]>(VXLB_MALLOC(states * sizeof(*machine.rows), kBlockName, -1));
    if (!machine.rows) {
        VX_TRACE(1, kBtMon, kError,
                 "Unable to allocate memory to children to trie, freeing earlier allocated spaces");
        return false;
    }
    std::memset(machine.rows, 0xff, states * sizeof(*machine.rows));  // kNone
    machine.f_func = makeTable<std::int16_t>(states);
    machine.out_func = makeTable<std::uint32_t>(states);
    if (machine.f_func && machine.out_func) return true;
    VX_TRACE(1, kBtMon, kError, "Unable to allocate space to out_func");
    return false;
}

}  // namespace

void vxlb_build_lexicon(VXBTCustomeRule* rule) {
    if (rule) std::memset(rule, 0, sizeof(*rule));
}

int add_to_lexicon(VXBTCustomeRule* rule, const char* keyword, std::int32_t priority, const char* btName,
                   std::uint8_t constraint) {
    if (!rule || !keyword || !*keyword) return -1;
    if (!std::all_of(keyword, keyword + std::strlen(keyword), hasColumn)) return -1;
    if (rule->lexiconCount >= kLexiconEntries) {
        VX_TRACE(1, kBtMon, kWarning,
                 "Custom rule keyword '%s' is refused: there are %d already; stop and start empties them",
                 keyword, rule->lexiconCount);
        return -1;
    }
    VXBTLexiconEntry& entry = rule->lexicon[rule->lexiconCount++];
    entry.keywordLength =
        static_cast<std::int32_t>(vxlb_copy_text(entry.keyword, sizeof(entry.keyword), keyword));
    vxlb_copy_text(entry.btName, sizeof(entry.btName), btName);
    entry.constraint = constraint;
    entry.priority = priority;
    rule->keywordLengthSum += entry.keywordLength;
    return 0;
}

int vxlb_init_automaton(vxlbTrie* machine, const VXBTCustomeRule* rule) {
    if (!machine) {
        VX_TRACE(1, kBtMon, kError, "vxlbTrie is null in function vxlb_create_trie, hence returning");
        return -1;
    }
    vxlb_free_automaton(machine);
    const std::size_t states = rule ? static_cast<std::size_t>(rule->keywordLengthSum) + 1 : 1;
    const int count = makeTables(*machine, states) ? create_match_machine(machine, rule) : -1;
    if (count < 0) vxlb_free_automaton(machine);
    return count;
}

int create_match_machine(vxlbTrie* machine, const VXBTCustomeRule* rule) {
    if (!rule) {
        VX_TRACE(1, kBtMon, kError, "VXBTCustomeRule is NULL, hence returning");
        return -1;
    }
    const std::int32_t states = addKeywords(*machine, *rule);
    VX_TRACE(2, kBtMon, kInfo, "Maximum states in automaton = %d", states);
    auto* queue = makeTable<std::int16_t>(static_cast<std::size_t>(states));
    if (!queue) return -1;
    followFailures(*machine, queue);
    VXLB_FREE(queue, kBlockName, -1);
    machine->total_states = states;
    return states;
}

void vxlb_free_automaton(vxlbTrie* machine) {
    if (!machine) return;
    VXLB_FREE(machine->rows, kBlockName, -1);
    VXLB_FREE(machine->f_func, kBlockName, -1);
    VXLB_FREE(machine->out_func, kBlockName, -1);
    *machine = {};
}

std::int32_t find_next_state(const vxlbTrie& machine, std::int32_t state, char character) {
    return hasColumn(character) ? machine.rows[state][character - kTrieFirstChar] : 0;
}

bool check_for_match_constraint(const VXBTCustomeRule& rule, std::int32_t keyword, std::int32_t start,
                                std::int32_t textLength) {
    const VXBTLexiconEntry& entry = rule.lexicon[keyword];
    switch (entry.constraint) {
        case kMatchStartsWith:
            return start == 0;
        case kMatchEndsWith:
            return start + entry.keywordLength == textLength;
        case kMatchContains:
            return start > 0;
        case kMatchEquals:
            return entry.keywordLength == textLength;
        default:
            return false;
    }
}

const char* search_match_machine(const char* text, const vxlbTrie* machine, const VXBTCustomeRule* rule) {
    if (!text || !machine || !machine->total_states || !rule) return nullptr;
    const auto length = static_cast<std::int32_t>(std::strlen(text));
    const VXBTLexiconEntry* best = nullptr;
    std::int32_t state = 0;
    for (std::int32_t at = 0; at < length; ++at) {
        state = find_next_state(*machine, state, text[at]);
        std::uint32_t outputs = machine->out_func[state];
        for (std::int32_t i = 0; outputs && i < rule->lexiconCount; ++i, outputs = std::rotr(outputs, 1)) {
            const VXBTLexiconEntry& entry = rule->lexicon[i];
            if (!(outputs & 1) || entry.priority < (best ? best->priority : 0)) continue;
            if (check_for_match_constraint(*rule, i, at - entry.keywordLength + 1, length)) best = &entry;
        }
    }
    return best ? best->btName : nullptr;
}

}  // namespace vx
