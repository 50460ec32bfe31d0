// Flowpath records: 2, 3, 4, 19 and 100 as text lines through dumpData.
//
//     2     header of a flowpath: identity, start, thread, BT, URL, session; once, before its first 3 or 4
//     3     a piece of the blob while the transaction runs
//     4     the rest of the blob and the result
//     19    an argument of a method, under the id of the header name "Custom_Header"
//     100   debug data
//
// A flowpath that turns out not to be wanted leaves nothing, or, when data of it is out already, a 4 record
// of status -99, at which the collector drops what it has.
//
// Limits    A record is at most 16,383 bytes; a longer one is cut so that its last byte is the newline.
//           Bytes 10 and 13 of text fields are written as blanks.
// Errors    Without a BT no record is written (traced), and a piece of the blob is dropped.
// Threads   Under the decode lock; blobMutex held around everything that writes the blob out.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

void dumpFPHeaderRecord(vxTD* slot, std::int64_t threadId);  // threadId 0: the slot's
void dumpIncompleteFlowpathSeqBlock(vxTD* slot, std::int64_t threadId);
void dumpCompleteFlowpathSeqBlock(vxTD* slot, std::int32_t category, std::int64_t fpCPUTime,
                                  std::int64_t duration, std::int32_t endField);
// Only where the header table has "Custom_Header"; raises seqNo. At most 1,023 bytes.
void dump19RecordForSpecificMethodArg(vxTD* slot, std::uint32_t methodId, const char* phase);
void dumpDataForDebug(vxTD* slot);
std::int32_t getTagIdPerThread(const vxTD* slot);  // -1: none

}  // namespace vx
