// Instrumentation profiles: the files that say which methods agents instrument. A line carries a count and as
// many groups of three fields, in any order within a group:
//
//     numInstrProfile=2;instrProfile=web;lmd=5;size=6;instrProfile=shop\db;lmd=7;size=8;
//
// Each group is compared with what the instance holds, and fetched when it differs. When all have arrived,
// the contents go to the method table as one text, each profile's from a fresh line on.
//
//     kywdInfo[55].content  [web ........\n][shop\db .....\n]
//     heldProfiles           row 0: at 0     row 1: at 9
//
// Limits    kMaxInstrProfiles rows (a line has no room for more groups), kMaxFileSize bytes in all. Groups
//           beyond the count are passed over; groups that are lacking leave the texts unread (traced).
// Errors    A profile that did not come is a warning of the start's answer; what is held of it serves.
// Threads   Control thread of the instance, without any lock; current context.
#pragma once

#include <cstdint>

namespace vx {

inline constexpr std::int32_t kMaxInstrProfiles = 341;

// The table's parser of "instrProfile", "lmd" and "size"; a name "-" or "NA" means no profile.
void setInstProfile(char* value, const char* keyword, int index);
// Makes the rows of a line when it has given a count. False when there are none.
bool init_instrprof_table();
// Ends what a line has begun: its rows, its text, its marks. What is held stays.
void makeInstrProfTableFree();

}  // namespace vx
