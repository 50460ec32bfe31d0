// Reading from agents: one read of what is there, never a wait.
//
//     text lines    readMessageFromSocket -> processdatamsg -> processReceivedMsg for each line
//     records       readDataFromSocket -> decodeMessage
//
// A WebSocket (behind a null socket) is read in the same way: what the library has handed over (`in`) stands
// for what a read finds.
//
// A read of lines starts from an empty buffer: what lies behind the last newline is lost, so a line has to
// come whole. Two reads go on from an earlier one: a discovery connection's (its process keeps the tail) and
// a data connection's (its process keeps the tail of an incomplete record).
//
// Limits    A line is at most 131,071 bytes with its newline.
// Errors    kReadDone, kReadNothing (no bytes now), kReadFailed, kReadClosed; on the last two the caller
//           closes the connection. A connection that was closed while its lines were handled answers
//           kReadDone (vxConnectionClosed tells).
// Threads   The listener. The decode lock is held from taking the tail to the end of decoding.
#pragma once

#include <apr_network_io.h>

#include "commonlibc/context/vx_application.h"

namespace vx {

inline constexpr std::int32_t kMaxMessage = kReadBufSize - 1;  // bytes of lines that one read may bring
inline constexpr int kReadDone = 0, kReadNothing = 1, kReadFailed = -1, kReadClosed = -2;

// Empties the buffer; its block is made on first use. False without memory.
bool setResetSocketBuffer(VXReadBuffer& buffer);
int readMessageFromSocket(apr_socket_t* socket, VXReadBuffer& buffer, epollPtr_t** epollPtrSlot,
                          VXAgentWs* wsi = nullptr);
// Into the record decoder of the current instance.
int readDataFromSocket(apr_socket_t* socket, VXReadBuffer& buffer, std::int32_t appIndex,
                       std::int32_t procIndex, VXAgentWs* wsi = nullptr);
// Before a process's data connection is closed for another reason than its own end: reads the records that it
// has brought, as far as they are here, at most 8 MB. Makes the instance current.
void vxReadLastRecords(const epollPtr_t& address);
// Hands over the lines of the buffer; records behind a line (first byte "^") go to the decoder. What is left
// then stands at the buffer's start.
int processdatamsg(apr_socket_t* socket, VXReadBuffer& buffer, epollPtr_t** epollPtrSlot,
                   VXAgentWs* wsi = nullptr);

}  // namespace vx
