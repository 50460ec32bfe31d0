// The line with which an agent registers: any text, taken apart into bounded members.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "commonlibc/proxyServer/vx_proxy_registration_line.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    vx::kwLocalStruct line;
    vx::vxParseRegistrationLine(text.data(), line);
    const auto ends = [](const auto& member) { return std::memchr(member, '\0', sizeof(member)) != nullptr; };
    if (!ends(line.appName) || !ends(line.tierName) || !ends(line.agentName) || !ends(line.agentType) ||
        !ends(line.serverIp) || !ends(line.jvmType) || !ends(line.tags) || !ends(line.attributes))
        std::abort();
    return 0;
}
