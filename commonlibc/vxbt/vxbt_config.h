// Set-up of business transactions when the collector has started an instance.
//
//     <home>/config/BTRuleFile.txt         rules
//     <home>/config/BTThresholdFile.txt    thresholds
//
// A file that is not there is an empty text; without any rule the default global rule names the BTs.
//
// Threads   Control thread, current context; the decode lock must not be held.
#pragma once

namespace vx {

// Makes what an instance keeps for its life, initialises the monitor, then reads both files. What a start
// does not keep: custom rules, and thresholds that the file does not name.
void VXBTConfigModelInit();

// The first half of it: everything but the files. A check of a rule file needs no more.
void vxMakeBtStore();
// Gives back what vxMakeBtStore and rule texts took beside the context's pool. Only where nobody reads any
// more.
void vxFreeBtStore();
// Puts the default rule in force.
void vxApplyDefaultRule();

}  // namespace vx
