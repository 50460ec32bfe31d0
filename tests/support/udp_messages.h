// Datagrams of clients, as texts.
#pragma once

#include <string>

#include "commonlibc/vxlb_wrap_header.h"
#include "tests/support/record_stream.h"

namespace vx::test {

// One wrapped message of a client that knows its index.
inline std::string wrapped(VXWrapType type, std::int32_t index, const std::string& payload = "",
                           std::int32_t attached = 0, std::int64_t key = 0) {
    std::string out(kWrapDatagramMax, '\0');
    const VXWrapHeader header{type, 4, key, index, attached, {}, {}, {}, {}};
    out.resize(static_cast<std::size_t>(
        vxWrapEncode(out.data(), out.size(), header, {payload.data(), payload.size()})));
    return out;
}
inline constexpr const char* kUdpTags = "appName=shop;vxAppServerHost=host7;tierName=Web_1;agentName=nginx;";
// One of a client that does not.
inline std::string introduced(VXWrapType type, const std::string& function, std::int32_t attached = 0,
                              const char* tags = kUdpTags) {
    std::string out(kWrapDatagramMax, '\0');
    const VXWrapHeader header{
        type, 4, 77, kWrapIndexUnknown, attached, wire("req-"), {}, wire(function.c_str()), wire(tags)};
    out.resize(static_cast<std::size_t>(vxWrapEncode(out.data(), out.size(), header, {})));
    return out;
}

}  // namespace vx::test
