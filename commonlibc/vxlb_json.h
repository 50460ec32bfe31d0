// JSON: the one unit that speaks to the JSON library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vx {

// Builds a flat JSON object from "key=value" pairs separated by "," (settings `tags`, `attributes`); an
// argument that is a JSON object already is checked and written compactly. The text's length, or -1 when
// it is neither, or does not fit (`out` is then empty).
int vxlb_json_from_pairs(const char* pairs, char* out, std::size_t size);

// One member of an object; a null name ends the members.
struct VXJsonMember {
    const char* name;
    const char* text;  // null: the number is the value
    std::int64_t number;
};
struct VXJsonSection {
    const char* name;
    std::span<const VXJsonMember> members;
};
// Writes an array in which each section is its name and, behind it, an object of its members. Bytes of texts
// that are no UTF-8 become "?". The length, or -1 when it does not fit (`out` is then empty).
int vxlb_json_sections(std::span<const VXJsonSection> sections, char* out, std::size_t size);

}  // namespace vx
