// Protocol negotiation: what the agent side supports, what the collector offers.
//
// Both sides are lists of at most three protocols; the collector's order decides. A zero is an empty slot
// and takes part in the match: a collector that names no protocol of the agent's ends in protocol 0, which
// no transport serves, so a collector always names one that the agent has.
//
//     agent      TCP WSS  0   0   0        collector  WS  WSS  0   0   0
//                     \________ first of the collector's that the agent has: WSS
//
// Limits    Ten items of a list, three protocols, 49 bytes of supportedProtocolsString (whole items).
// Errors    An item with an unknown name or without a valid port is traced and skipped.
// Threads   Settings passes and the control thread; all on the current context.
#pragma once

#include <string>
#include <string_view>

namespace vx {

// Replaces the agent's array and supportedProtocolsString by those of "TCP:7000,WSS:443" and sets the ports.
// False, with nothing changed, when no item is valid; `whole` (may be null) becomes false when one was not.
bool upDateAgentSupportedProtocolData(const char* list, bool* whole = nullptr);
// The same with one protocol only (the default is 3, WSS), with port 443 where none is set.
void updateANYAgentSupportedProtocolData(int protocol);
// The list with `port` in its items of the protocol in use (TCP when there is none); the other ones stay as
// they are.
std::string vxWithPort(std::string_view list, int port);
// A reroute's port, which is that of the protocol in use: for the protocol, and in supportedProtocolsString.
void vxTakePort(int port);
// Empties the agent's array and the string.
void vxClearAgentProtocols();
// Empties the collector's array: before each connect message.
void vxClearCollectorProtocols();
// Append to the first empty of three slots; other numbers than 1 to 3, and a fourth, are ignored.
void setSupportedProtocolArray(int protocol);
void setSupportedProtocolVXCArray(int protocol);
// 1 when the control connection must be made again, else 0. `cleanup` closes the control connection.
int setProtocolFromResponseMessage(const char* line, void (*cleanup)());
int getProtocolPort(int protocol);  // 0 if it is not above 0
void setActiveProtocolIndex(int protocol);

}  // namespace vx
