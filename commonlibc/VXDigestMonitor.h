// Digests of the monitors: percentiles of the durations of a BT or a back-end, over a period of their own.
//
// While digests of a kind are on, each counted duration goes into the digest of its slot, which is made with
// the first one. At the end of a period the generator of the kind takes what the digests hold and writes a
// record for each object that was counted:
//
//     793  business transactions, and one line of them all        794  back-ends
//
// A keyword switches the digests of a kind and says what the records show, fields that are not given are the
// defaults:
//
//     type[%20period[%20percentile[,percentile...]]]      1%2060000%2050,95,99.9
//
// Units     Durations, and the period, in milliseconds; percentiles above 0 up to 100, in steps of 0.01.
// Limits    A digest has about 2.7 KB for its slot's life; a period has 10,000 to 86,400,000 ms; up to four
//           percentiles. A report has periods as long as its cycle makes them, but no shorter ones.
// Errors    A faulty value of a keyword is refused whole. Without memory for a digest its values are left
//           out, and no record is written for the slot.
// Threads   Adding any, the slot's mutex held; keywords the control thread; records the auto-sensor thread.
//           All on the current context.
#pragma once

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_tdigest.h"

namespace vx {

// Adds a duration to the digest of a slot while digests of its kind are on; the slot's mutex held.
void vxDigestDuration(const VXDigestSettings& settings, VXDigest*& digest, std::uint8_t& digestUpdated,
                      std::int64_t durationMs);
// Moves what a slot's digest holds to `taken` and begins it anew; the slot's mutex held. False when it has
// taken no value since the last time.
bool vxTakeDigest(VXDigest* digest, std::uint8_t& digestUpdated, VXDigest& taken);
// Writes the record of one object with the percentiles that are set.
void vxPutDigest(char* buffer, std::int32_t* length, int record, const char* prefixId, std::int64_t id,
                 const char* prefix, const char* name, VXDigest& digest, std::uint64_t percentiles);
// Empties the digests of a context: what a run leaves in them. Counters stay: the auto-sensor thread may
// still owe a report of them, and each monitor's Init clears them.
void ResetMonitorData();
// At each start of a run: digests as an instance begins with them. The end of a run leaves them as they are,
// for its last report.
void vxDigestInit();
// Keyword parsers.
void setDigestPercentileBT(const char* value);
void setDigestPercentileIP(const char* value);

}  // namespace vx
