// Takers of record fields, and names by their ids.
//
// Threads   Any; no state.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vx::collector {

inline constexpr std::int64_t kMaxId = 1 << 20;

// Takes the text up to `end` from the front of `rest`; without one, all of it.
std::string_view takeUntil(std::string_view& rest, char end);
// Takes a number from the front of `rest`; false leaves it.
bool takeNumber(std::string_view& rest, std::int64_t& out);
bool takeChar(std::string_view& rest, char wanted);
// A whole decimal number; a trailing "F" (a forced flowpath) is passed over.
bool readNumber(std::string_view text, std::int64_t& out);
// The number of a transaction: "7", "7F" when it is forced, "7:3:12" when another tier has called it.
bool readFlowpath(std::string_view text, std::int64_t& out);

using Names = std::unordered_map<std::int64_t, std::string>;

// False for an id that is none, or out of range.
bool setName(Names& names, std::string_view idText, std::string_view name);
// The name of an id, or `otherwise`.
std::string knownName(const Names& names, std::int64_t id, std::string_view otherwise);
// The name of an id, or as in "method 7".
std::string nameOf(const Names& names, std::int64_t id, const char* kind);
// A name as the agent gave it: "&#46;" and the like are undone.
std::string plainName(std::string_view name);

}  // namespace vx::collector
