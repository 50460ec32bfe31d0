// Path of the WebSocket connections to the collector.
//
//     /collector/vx/Orders_1/Shop/host-7?tierAttributes=NA&
//
// It tells the collector, or a balancer in front of it, whose connection this is. Bytes outside printable
// ASCII, blanks and quotes are written as "%XX", so that no name ends the request line.
//
// Limits    The text is cut at 1,023 bytes before that.
// Threads   Any; current context.
#pragma once

namespace vx {

// A heap string that the caller frees; null without memory. The setting rawWsPath leaves the "/" in front
// out.
char* setWebsocketUrl();

}  // namespace vx
