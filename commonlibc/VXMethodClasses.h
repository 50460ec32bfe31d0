// What a method is to this system: the callout table, and deliveries of the texts that classify methods.
//
// A delivery of a text classifies the methods that it names and resets the others of its kind. Both happen
// in small portions of the method table lock, because the listener takes that lock for every method. To be
// safe, a record that the text names is reset and classified in one step and only its final class is
// stored, so that a running transaction never sees a back-end lose its flag between two portions; what the
// text does not name is reset at the end.
//
//     beginDelivery -> for each line: takeClass, change, putClass -> endDelivery
//
// Threads   Deliveries: the control thread, one at a time. "Lock" is the method table lock.
#pragma once

#include <cstdint>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Kinds of texts.
inline constexpr int kTextProfile = 1, kTextMonitor = 2, kTextEntryPoints = 3;
// Value of instrumentationProp.
inline constexpr std::int32_t kPropMonitored = 2, kPropUnclassified = 3;
inline constexpr const char* kSqlCallout = "SQL_CALLOUT";

// The members of a record that classify it.
struct VXMethodClass {
    std::uint32_t flags;
    std::uint8_t type, subtype;
    std::int32_t logLevel;
};

// One delivery of a text.
struct VXMethodDelivery {
    int kind;
    std::uint32_t number;
    bool resets;  // false: this run-time change has told the collector of its methods already
};

// Changes a class by the text of an entry line; `value` is the log level of "CUSTOM_LOG". False, and
// nothing changed, for an unknown text.
bool vxClassify(VXMethodClass& methodClass, const char* calloutText, int value);
// The same on a record. Always 0. Lock held.
int updateEntryMap(mPP* method, const char* calloutText, int value);

// Begins a delivery and notes its time in the node; the reset is left out during a run-time change that has
// told the collector of its methods. Takes the lock.
VXMethodDelivery makeHashmapCopyAndaddToLL(int kind);
// The class of a record that the text names, reset if this delivery meets it for the first time. Lock held.
VXMethodClass vxTakeClass(mPP& method, const VXMethodDelivery& delivery);
void vxPutClass(mPP& method, const VXMethodClass& methodClass);
// Resets what the text did not name. Takes the lock in portions.
void vxEndDelivery(const VXMethodDelivery& delivery);
// Resets every record of a kind: 1 profile, 2 method monitor, 3 entry points. Takes the lock in portions and
// pauses between them: not to be called with the lock held.
void resetmethodHashMapNode(methodHashMapNode_t* node, int kind);

}  // namespace vx
