#include "commonlibc/vxbt/vxbt_header_stage.h"

#include <algorithm>
#include <string_view>

#include "commonlibc/vxbt/vxbt_state_machine.h"

namespace vx {

namespace {

constexpr std::size_t kMaxPairs = 2048;

// What agents write for the characters that separate things in their texts: not the usual codes throughout.
struct Escape {
    std::string_view text;
    char character;
};
constexpr Escape kEscapes[] = {
    {"%124", '|'}, {"%2C", ','}, {"%2E", '.'}, {"%26", '&'},  {"%2F", '/'}, {"%39", '\''},
    {"%34", '"'},  {"%3A", ':'}, {"%3D", '='}, {"%5C", '\\'}, {"%5E", '^'}, {"%60", ' '},
};

// Decodes in place; the length that is left.
std::size_t decodeEscapes(char* text, std::size_t length) {
    const std::string_view source(text, length);
    std::size_t to = 0;
    for (std::size_t from = 0; from < length;) {
        const Escape* escape = std::end(kEscapes);
        if (text[from] == '%')  // the text may be long: agents hand on what clients send
            escape = std::find_if(std::begin(kEscapes), std::end(kEscapes), [&](const Escape& row) {
                return source.substr(from, row.text.size()) == row.text;
            });
        const bool found = escape != std::end(kEscapes);
        const char character = found ? escape->character : text[from];
        from += found ? escape->text.size() : 1;
        text[to++] = character;
    }
    return to;
}

// The state behind a text, 0 where the machine does not go on.
std::int32_t walk(const vxlb_state_machine& machine, std::int32_t state, std::string_view text) {
    for (const char c : text) {
        if (!vxlb_state_machine_takes(c)) return 0;
        state = vxlb_state_machine_next(machine, state, c);
        if (!state) return 0;
    }
    return state;
}

}  // namespace

std::int32_t getBTHeader(const vxlb_state_machine* machine, char* text, std::size_t length, std::int32_t id) {
    if (!vxlb_state_machine_usable(machine)) return id;
    char key[kHeaderKeySize];
    const std::int32_t start = walk(*machine, 0, vxlb_state_machine_header_key(id, key));
    if (!start) return id;
    if (!text || !length) return -1;

    std::string_view rest(text, decodeEscapes(text, length));
    for (std::size_t pairs = 0; pairs < kMaxPairs && !rest.empty();) {
        const std::string_view pair = rest.substr(0, rest.find('&'));
        rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
        if (pair.empty()) continue;
        ++pairs;
        const std::int32_t state = walk(*machine, start, pair);
        if (!state) continue;
        const vxlb_machine_state& last = machine->states[state];
        if (last.exact > 0) return last.exact;
        if (last.partial > 0) return last.partial;
    }
    return 0;
}

}  // namespace vx
