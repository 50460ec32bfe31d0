// Tier callouts: the chain that ties a flowpath to its caller.
//
// A chain is text with fields at "_": 0 the caller's flowpath, 1 its time, 2 the sequence there, 3 the
// caller's id ("NA": not to be announced), 6 to 8 its tier, instance and server names.
//
// Threads   Under the decode lock.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Takes the chain text apart in place. 0, or -1 and an unchanged slot where it has fewer than 4 fields.
int setTierCallOut(vxTD* slot, char* chainText);

}  // namespace vx
