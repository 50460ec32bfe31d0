// Certificate and key of the listener for agents over WSS.
//
// Both stand in config/proxy.cert of the home unless the settings name other files (PEM); a certificate file
// that is named alone holds the key, too.
//
// Threads   The listener, and the check of the configuration; on the root context.
#pragma once

#include <cstddef>

#include "commonlibc/VXConfigFile.h"

namespace vx {

inline constexpr int kAgentsOverWss = 2;  // proxyAgentWebSocket

struct VXAgentCertificate {
    char certificate[kConfigPathSize], key[kConfigPathSize];  // paths
};

void vxAgentCertificate(VXAgentCertificate& paths);
enum class VXCertificateVerdict { kGood, kExpired, kUnusable };
// Reads both files as the listener does; what is wrong goes into `reason`.
VXCertificateVerdict vxCheckAgentCertificate(const VXAgentCertificate& paths, char* reason, std::size_t size);

}  // namespace vx
