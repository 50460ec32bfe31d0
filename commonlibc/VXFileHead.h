// Heads of file answers: what the collector says in front of a file's content, and the file keywords of its
// lines. Size and date come in one of three forms:
//
//     BTRuleConfig=rules.txt|4096|1700000000                                               in a keyword
//     vx_control_rep:action=file;keyword=BTRuleConfig%3Bsize%3D4096%3Blmd%3D1700000000;
//     vx_control_rep:action=instrumentation_profile;instrProfile=dir\web;size=4096;lmd=1700000000;
//
// The name is what stands in front of size and date: behind "keyword=" or "instrProfile=", where one is
// there.
//
// Limits    A name is cut at kFileNameSize - 1 bytes.
// Threads   Any; no state.
#pragma once

#include <cstdint>

#include "commonlibc/context/VXFileState.h"

namespace vx {

// Takes any of the forms. `name` has kFileNameSize bytes. 0, or -1 (and nothing changed) when size or date
// is missing or no number.
int getFileSizeAndLmd(const char* line, char* name, std::int64_t* size, std::int64_t* lmd);
// True when a head's name is the one asked for, alone or with more behind one of ";", "%" and "|".
bool vxHeadNames(const char* headName, const char* asked);

}  // namespace vx
