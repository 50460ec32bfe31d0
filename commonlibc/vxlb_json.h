// JSON: the one unit that speaks to the JSON library.
#pragma once

#include <cstddef>

namespace vx {

// Builds a flat JSON object from "key=value" pairs separated by "," (settings `tags`, `attributes`); an
// argument that is a JSON object already is checked and written compactly. The text's length, or -1 when
// it is neither, or does not fit (`out` is then empty).
int vxlb_json_from_pairs(const char* pairs, char* out, std::size_t size);

}  // namespace vx
