// Call-outs at a method's entry and exit: how deep calls are nested, which back-end a call went to, what is
// counted for it and which items it leaves.
//
//     entry   depth + 1                                        (databases and queues: DBCallDepth)
//     exit    vxLeaveCallout: back-end, depth - 1, count       then the method's own item,
//             vxAppendCallout: the call's item                 behind it
//     thrown  vxThrowFromCallout: all of it, ahead of the method's own item
//
// A nested database call (one inside another) is neither counted nor written: the outer one is. A call
// without a back-end to be had leaves no item and no count.
//
// Threads   Under the decode lock. No allocation but for a back-end that is met for the first time.
#pragma once

#include "commonlibc/flowpath/VXMethodEvent.h"

namespace vx {

// What an exit knows of its call-out.
struct VXCallout {
    mPP* backend;  // null: none
    std::int64_t resourceId;
};

// True when the method has anything to do with this unit.
inline bool vxHasCallout(const VXMethodView& view) noexcept {
    return view.flags & (kMethodBackend | kMethodCustomBackend);
}
void vxEnterCallout(vxTD* slot, const VXMethodView& view);
VXCallout vxLeaveCallout(vxTD* slot, const VXMethodView& view, const VXMethodExitArguments& exit);
// `callout` has a back-end; blobMutex must not be held.
void vxAppendCallout(vxTD* slot, const VXMethodView& view, const VXMethodExitArguments& exit,
                     const VXCallout& callout);
void vxThrowFromCallout(vxTD* slot, const VXMethodView& view, const VXMethodExitArguments& exit);

}  // namespace vx
