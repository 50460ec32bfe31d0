// Metadata replay: what a new data connection has to learn again.
//
// Each collector notes names and ids under the lock of its table, 256 records at a time, and writes them
// without it. What is added while it runs is told too.
//
// Threads   The data thread behind a 99 record, the control thread at a run-time change. Current context.
#pragma once

namespace vx {

// The 5 records of every method in use, and the 7 records of every live BT. The arguments are those of all
// collectors and carry nothing here.
void collectAndSendOnlyCached5Records(int first, int second);
void collectAndSendOnlyCached7Records(int first, int second);
// The "11" record: "11,%d\n" with the number of the record that follows.
void dump11Record(int recordNumber);
// Everything behind a 99 record: 5, 6, 7, 22, 26, 32 to 36, 112 in that order, as far as a record has
// content.
void replayMetaData();

}  // namespace vx
