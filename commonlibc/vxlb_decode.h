// Record decoder: bytes of an agent's data connection to calls on the flowpath engine.
//
// A stream is a mix of lone newlines, the keep-alive "10,\n" and frames; anything else is skipped byte by
// byte, so that a stream that has lost its alignment finds the next frame by itself. Integers are
// little-endian.
//
//     | offset | 0 | 1             | 5            | 9    | 13 | 14   | total - 1 |
//     | field  | ^ | 12, signed 32 | total length | type | |  | body | newline   |
//
// What a read leaves of its last frame stands in decoder.partialBuffer: the caller keeps it with the
// connection that it came from and puts it in front of what it reads there next. A tail of 10,240 bytes or
// more is dropped.
//
// Errors    None: a corrupt frame is skipped, and what came of it stands in the trace log. Each frame that is
//           not accepted counts in decoder.messagesRefused, noise between frames does not.
// Threads   The thread that serves the instance; takes the decode lock of the current context.
#pragma once

#include <cstdint>

#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_messages.h"

namespace vx {

// Frames and handles every whole record of `buffer`; an incomplete last one is kept in the context's
// carry-over (stream mode). Always 0.
//   procIndex     the sending process: its first word becomes 0 with every record accepted
//   singleRecord  1: datagram mode, ends after the first accepted record, `fpKey` finds the flowpath, and
//                 the carry-over is neither read nor written
int decodeMessage(const char* buffer, std::int32_t bytesRead, std::int32_t procIndex, int singleRecord,
                  const char* fpKey);
// The same for bytes that came at `now`: what comes together reads the clocks once.
int vxDecodeMessageAt(const VXMoment& now, const char* buffer, std::int32_t bytesRead, std::int32_t procIndex,
                      int singleRecord, const char* fpKey);
// Counts the frames of bytes that nobody is there for as refused, without a look into them. How many bytes at
// the end are a frame that goes on beyond them: fewer than kPartialSize, not counted.
std::int32_t vxRefuseMessages(const char* bytes, std::int32_t length);

}  // namespace vx
