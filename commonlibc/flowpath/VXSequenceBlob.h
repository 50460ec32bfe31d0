// Sequence blob: the compact trace of one transaction, items appended as text.
//
// M method id, T thread, t milliseconds, c CPU time, S the flowpath's sequence:
//
//     entry                    M:T_0_t__              with its URL   M:T:1:url_0_t__
//     exit                     M:T_1_t_c___           without c      M:T_1_t____
//     exit with the sequence   M:T_1:S_t_c___         without c      M:T_1:S_t____
//     exception                eS_
//
// Limits    kSequenceBlobSize bytes; an item is cut at the end. At kSequenceBlobDumpAt the blob goes out.
// Threads   Under the decode lock; blobMutex held by the caller of updateFPSeqBlob.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

struct VXBlobItem {
    std::uint32_t methodId;
    std::int64_t time;     // ms: entry relative to the start, exit the wall time
    std::int32_t type;     // 0 entry, 1 exit, 3 and 4 exits by exception; others write nothing
    std::int64_t cpuTime;  // negative: none
    std::uint32_t urlFlag;
    std::int64_t threadId;
    const char* url;
    std::int32_t phaseFlag;  // the exit carries the sequence (while the keyword is on)
};
void updateFPSeqBlob(vxTD* slot, const VXBlobItem& item);
// Appends the item of an exception; takes blobMutex.
void appendExceptionRecordInSeqBlob(vxTD* slot, std::int64_t threadId);
// Writes the blob out when it has reached kSequenceBlobDumpAt. Called by each append.
void checkToDumpFPSeqBlob(vxTD* slot, std::int64_t threadId);
// Appends "M:T_kind_S_slot" to debugData as far as it fits; kind 0 entry, 1 exit.
void updateDebugModeData(vxTD* slot, std::uint32_t methodId, int kind, std::int64_t threadId);

}  // namespace vx
