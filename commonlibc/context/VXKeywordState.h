// What keyword parsers keep: raw values whose subsystem takes them later, and small settings groups.
//
// Guards    texts: the process's text mutex (see the VXSys unit). Numbers: vx_word_get/set; passBlocked
//           belongs to the control thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr int kKeywordRows = 140;

struct vxAppLogStruct_t {
    std::int64_t VXJTFlushInterval;
};
struct VXAutoInstrumentation_t {
    std::int32_t autoInstrMapSize, autoInstrTraceLevel, autoInstrMaxAvgDuration;
    double autoDeInstrPct;
    std::int32_t autoInstrSampleInterval;
    double autoInstrPct;
    std::int32_t autoInstrSampleThreshold;
    std::atomic<std::uint8_t> sessionOn;  // a session records the methods that agents report
};
struct VXFlowpathGenerator_t {
    std::int32_t maxCharInSeqBlob;
};
struct VXInterfaceProcessor_t {
    std::int32_t interfaceTraceLevel;
};

struct VXKeywordState_t {
    char* text[kKeywordRows];  // last value of a row whose parser keeps the text; null: never given
    std::int32_t asDataMode;   // first character of collectASData, 0: never given
    std::uint8_t passBlocked;  // a file fetch has ended the keyword pass over the present line
};

}  // namespace vx
