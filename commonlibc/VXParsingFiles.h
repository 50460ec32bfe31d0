// The three texts of the collector that fill the method table: instrumentation profile, entry points, method
// monitor.
//
// A text is lines of fields separated by "|". Lines that begin with a carriage return or "#", empty lines and
// lines in a wrong form are passed over without a message. Ids never change: a text that is delivered
// again keeps them. See VXMethodClasses.h for what a delivery does to methods that the text does not name.
//
//     entry points    module|signature|callout[:value]|flag
//     method monitor  module|method|alias
//     profile         module|class|method|flag|entry[|extra]
//     signature       name(argument;argument) returnType
//
// During a run-time change the first text that is read tells the collector of every method in use: the 11
// record naming 5, then the 5 records. What later texts of that change add is told with its first use.
//
// Limits    A line of more than 32,767 bytes is passed over; 1,024 arguments; maxMethods records. A text is
//           taken apart outside the method table lock and applied under it, 64 lines at a time.
// Errors    None reported: a failed allocation leaves the table as it was.
// Threads   Control thread, one text at a time. Current context; no lock held.
#pragma once

namespace vx {

// Each takes a terminated text and takes it apart in place; null is passed over but for the profile.
void parseEntryFile(char* text);
void parseMethodMonitor(char* text);
// The instrumentation profile; null: none is selected, its methods are reset.
void setMethodHashMapNode(char* text);
void readInstrProfFileRTC(char* text);  // the same for a text that is there

}  // namespace vx
