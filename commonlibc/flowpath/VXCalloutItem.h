// Call-out items of the sequence blob: T for a call that went well, E for one that did not.
//
// I sequence, B back-end id, w wall time in ms with three decimals, o ms since the start, s status (200 to
// 299: well), Q query id, P query parameters, U id of the URL (only while enableIPResourceURL is on):
//
//     database      TI:B:w:kind:Q:o::::s:P_     EI:B:w:kind:Q:o:s::::P_     kind 10; agent type 2: subtype
//     custom        TI:B:w:8:-:o::::s_          EI:B:w:8:-:o:s:::_
//     queue         TI:B:w:subtype:Q:o::::s_    EI:B:w:subtype:Q:o:s:::_
//     HTTP, others  TI:B:w:1:-:o:U:::s_         EI:B:w:1:-:o:s:U::_
//
// I is the flowpath's sequence; HTTP calls carry calloutSeq in its place where the agent gave one, and an
// item of the last row uses it up.
//
// Limits    kSequenceBlobSize bytes, as all items; one is cut at the end.
// Threads   Under the decode lock.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

struct VXCalloutItem {
    mPP* backend;
    std::int64_t startOffset;  // ms since the flowpath's start
    std::int64_t wallTime;     // microseconds
    std::int64_t resourceId;
    std::int64_t threadId;
};
// Appends T or E by the slot's status. blobMutex held.
void updateFPSeqBlobWithTierCallOutRecord(vxTD* slot, const VXCalloutItem& item);
// Appends the E of a call left by an exception; takes blobMutex. Databases write "EI:B:w:10:Q:o:s:::_",
// HTTP calls (while enableIPResourceURL is on: all others) their row; what else there is is traced.
void updateFPSeqBlobWithTierCallOutExceptionRecord(vxTD* slot, const VXCalloutItem& item);

}  // namespace vx
