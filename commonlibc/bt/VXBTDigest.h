// Digest records of the business transactions: 793.
//
//     793,<tier id>|<app id>|<BT id>:<prefix><BT name>|<count> <min> <max> <percentile> <value> ...
//
// One record for each BT that was counted since the last call, then one with id 0, "AllTransactions", of
// them all together. Nothing while no BT was counted.
//
// Units     Milliseconds; count is of transactions.
// Threads   The auto-sensor thread, on the current context. Takes the mutex of one slot at a time.
#pragma once

#include <cstdint>

namespace vx {

// Writes what the period has brought and begins the next one. True when records were written.
bool generateAndDumpBTDigestRecord(char* buffer, std::int32_t* length);

}  // namespace vx
