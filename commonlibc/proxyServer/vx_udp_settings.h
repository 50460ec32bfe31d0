// The settings document: what a datagram client is told of the settings of its context.
//
//     ["AppId",{"id":3},"TierInfo",{"tierID":7,"AppServerID":2,"appID":1},"TestInfo",{...}, ...]
//
// An object's name stands in front of it. Number 0 asks for all of them, others for some (docs/datagrams.md).
//
// Threads   Any, on the current context.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr int kSettingsAll = 0, kSettingsSession = 1, kSettingsKeyWord = 2;
inline constexpr std::size_t kSettingsDocumentSize = 16384;

// Writes the part for the client of that index. The length, or -1 when it does not fit.
int vxUdpSettingsDocument(std::int32_t index, int part, char* out, std::size_t size);
// Writes it and sends it to the clients of the context.
void vxUdpAnswerSettings(std::int32_t index, int part);

}  // namespace vx
