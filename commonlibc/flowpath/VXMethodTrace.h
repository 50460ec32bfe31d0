// Method entry and exit: from a report by name to counts, blob items and monitors.
//
// An exit is taken only where an entry of the same method is open: exits of methods whose entry was
// filtered stay out. Nesting order is not checked.
//
// Threads   Under the decode lock. Hot path: one hash search under one method table lock and one append per
//           event, no allocation.
#pragma once

#include "commonlibc/flowpath/VXMethodEvent.h"

namespace vx {

int vxMethodEntry(vxTD* slot, const VXMethodEntryArguments& entry);  // 0
// `method` saves the search where it is known and the slot's method table is current. Null: not counted.
mPP* vxMethodEntryEx(mPP* method, vxTD* slot, const VXMethodEntryArguments& entry);
void vxMethodExit(vxTD* slot, const VXMethodExitArguments& exit);
void vxMethodExitEx(mPP* method, vxTD* slot, const VXMethodExitArguments& exit);
// The exit of a method that was left by an exception: the flowpath's status becomes 503 at least, the
// method's entry stays open. `status` of the arguments is not looked at; exitType: see VXBlobItem.type.
void vxMethodExitException(vxTD* slot, const VXMethodExitArguments& thrown, std::int32_t exitType);

}  // namespace vx
