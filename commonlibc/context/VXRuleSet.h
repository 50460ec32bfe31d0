// Rules that find the BT of a starting transaction by matching: pattern rules in two state machines, custom
// rules in a lexicon with its automaton.
//
// Guards    A set is filled by the thread that takes configuration while nobody else knows it, and published
//           whole; from then on nobody writes it.
// Lifetime  Zero-filled is empty. Who made a set frees its machines before the set itself.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr std::int32_t kMachineFirstChar = 32, kMachineLastChar = 127;
inline constexpr std::int32_t kMachineChars = kMachineLastChar - kMachineFirstChar + 1;
inline constexpr std::int32_t kDefaultMaxStates = 128, kMaxStatesLimit = 65536;

// One state: most have one transition and fit it in here; where a second one is added, all of them move to a
// row of their own.
struct vxlb_machine_state {
    std::int32_t next;       // the one state behind; with kStateHasRow the number of the row
    std::int32_t partial;    // id for a text that goes on behind this state; 0 none
    std::int32_t exact;      // id for a text that ends here; 0 none
    std::uint8_t sole;       // character of the one transition, kStateHasRow, or 0: there is none
    std::uint8_t wild;       // 1: a "*" stands here
    std::uint8_t hasMethod;  // 1: method names go on from here
};
inline constexpr std::uint8_t kStateHasRow = 1;

// State 0 is the start; without capacity there is none, and the machine is not usable.
struct vxlb_state_machine {
    vxlb_machine_state* states;
    std::int32_t (*rows)[kMachineChars];  // by character minus kMachineFirstChar; 0: no transition
    std::int32_t nextState;               // the next free one
    std::int32_t capacity;                // states that there is room for
    std::int32_t growthStep;
    std::int32_t rowCount, rowCapacity;
};

inline constexpr std::int32_t kLexiconEntries = 40;
inline constexpr std::size_t kLexiconKeywordSize = 257, kLexiconBtNameSize = 129;
inline constexpr std::size_t kCriteriaTextSize = 256, kCustomRuleNameSize = 128;

// One keyword to be looked for, and what it says when it is found.
struct VXBTLexiconEntry {
    char keyword[kLexiconKeywordSize];
    char btName[kLexiconBtNameSize];
    std::uint8_t constraint;  // a match operator
    std::int32_t priority;    // below 0: never wins
    std::int32_t keywordLength;
};

// A custom rule's condition on one parameter.
struct objURIParam {
    char name[kCriteriaTextSize];
    std::uint8_t checkForExistance;  // 1: that the parameter is there is enough
    char value[kCriteriaTextSize];
    std::uint8_t matchOperator;
};

// The custom rules: fields of the last accepted line, and the keywords of all of them.
struct VXBTCustomeRule {
    std::int32_t mode;  // 1 method, 2 URI, 3 parameter; 0: there is no custom rule
    char ruleName[kCustomRuleNameSize];
    char btName[kCriteriaTextSize];
    std::uint8_t flag;
    std::int32_t priority;
    std::int32_t methodValue;  // of getHTTPMethodValue
    std::int32_t uriRuleCount;
    std::int32_t uriOperator;
    char uriText[kCriteriaTextSize];
    std::uint8_t uriReverse;
    objURIParam parameters[kLexiconEntries];
    std::int32_t parameterCount;
    VXBTLexiconEntry lexicon[kLexiconEntries];
    std::int32_t lexiconCount;
    std::int32_t keywordLengthSum;  // of the lexicon: no more states than this are needed behind the root
};

inline constexpr std::int32_t kTrieFirstChar = 32, kTrieLastChar = 126;
inline constexpr std::int32_t kTrieChars = kTrieLastChar - kTrieFirstChar + 1;

// The automaton of a lexicon; without states there is none.
struct vxlbTrie {
    std::int16_t (*rows)[kTrieChars];  // the state behind each character, failures followed already
    std::int16_t* f_func;              // by state: the state of its longest proper suffix
    std::uint32_t* out_func;           // by state: bit (i mod 32) stands for keyword i
    std::int32_t total_states;
};

// One tag of a rule; its texts lie behind it in the same block.
struct BTTagArray {
    char* key;
    char* tagField;       // the source of the value
    char* resolvedValue;  // of type 0: a copy of the field; else null
    std::int32_t type;    // 0 a constant, others are resolved when they are needed
    BTTagArray* next;
};

// Lists of tags in the order of the rule text.
struct VXBTTags {
    BTTagArray* global;
    BTTagArray** perBt;  // by BT id
    std::int32_t size;   // lists in perBt
    std::int32_t count;  // tags in all lists
};

// All of them, replaced together.
struct VXBTRuleSet {
    vxlb_state_machine urlMachine, headerMachine;
    VXBTCustomeRule customRule;
    vxlbTrie customMachine;
    VXBTTags tags;
    std::int32_t maxStates, skipCount;  // as the text gave them; maxStates 0: none given
};

}  // namespace vx
