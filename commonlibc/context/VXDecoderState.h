// Carry-over of the record decoder, one per instance.
//
// Guards    The decode lock: held by whoever decodes, from "make current" to the end of one decodeMessage
//           or one thread operation; by the stop handling, checkAndStopThread and Start for one slot of the
//           busy list at a time; and for the swap of rule tables. Never held during a file fetch or a send.
#pragma once

#include <apr_thread_mutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr std::int32_t kPartialSize = 10240;

struct VXDecoderState_t {
    apr_thread_mutex_t* decodeMutex;
    char partialBuffer[kPartialSize];            // tail of the last read, terminated
    std::int32_t partialLength;                  // 0 to 10239
    std::atomic<std::uint64_t> messagesRefused;  // messages of no use to anybody, since process start
    std::int64_t readTimeUs;                     // time of the read being decoded, Unix microseconds
    std::int64_t readSteadyMs;                   // the same in steady ms
};

}  // namespace vx
