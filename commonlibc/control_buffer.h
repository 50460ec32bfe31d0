// The read buffer of the control connection: filled from the socket, emptied line by line.
//
//     read_socket_buf  [consumed | readBytes unread ........ | free]
//                               ^readOffset                  ^writeOffset
//
// All that is received passes here, so that a line is never torn between the read loop and a file exchange in
// the midst of a line's handling.
//
// Limits    kControlBufSize bytes. A line that fills the buffer without a newline is dropped, with all that
//           follows up to the next newline. Zero bytes between lines are skipped.
// Errors    Codes of the socket helpers.
// Threads   Control thread of the instance; current context.
#pragma once

#include <cstdint>

#include "commonlibc/context/VXControlState.h"

namespace vx {

// The next whole line, terminated, without its newline; null when there is none. Good until the buffer is
// filled again.
char* takeControlLine(ctrlBufInfo_t* info);
// Up to `length` unread bytes, as they are. How many.
std::int64_t takeControlBytes(ctrlBufInfo_t* info, char* out, std::int64_t length);
// What is left over, no whole line, moves to the buffer's start and waits there for the rest.
void makeControlRoom(ctrlBufInfo_t* info);
// Waits at most `us` and reads once behind what the buffer holds, which must leave room. The bytes read, 0
// when none came.
int fillControlBuffer(ctrlBufInfo_t* info, std::int64_t us, char* error);
// The same past the buffer, which is empty: at most `length` bytes to `out`, which has room for one more.
int readPastControlBuffer(char* out, std::int64_t length, std::int64_t us, char* error);

}  // namespace vx
