#include "commonlibc/vxlb_wrap_header.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace vx {

namespace {

// Little-endian, one byte after the other.
template <class T>
void store(char* at, T value) {
    auto rest = static_cast<std::uint64_t>(value);
    for (std::size_t i = 0; i < sizeof(T); ++i, rest >>= 8) at[i] = static_cast<char>(rest & 0xff);
}

}  // namespace

std::int64_t vxWrapEncode(char* out, std::size_t size, const VXWrapHeader& header, VXWireText payload) {
    const VXWireText given[] = {header.apiReqId, header.awsReqId, header.funcName, header.tags};
    constexpr std::size_t lengthsAt[] = {kWrapApiReqLenAt, kWrapAwsReqLenAt, kWrapFuncNameLenAt,
                                         kWrapTagsLenAt};
    const bool named = header.contextIndex == kWrapIndexUnknown;
    std::size_t whLen = kWrapFixedSize;
    if (named)
        for (const VXWireText& text : given) whLen += std::min(text.length, kWrapDatagramMax);
    const bool ended = payload.length > 0 && payload.data[payload.length - 1] == '\n';
    const std::size_t behind = std::min(payload.length, kWrapDatagramMax) + (ended ? 0 : 1);
    if (whLen + behind < kWrapDatagramMin) whLen = kWrapDatagramMin - behind;
    if (whLen + behind > std::min(size, kWrapDatagramMax)) return -1;

    std::memset(out, 0, whLen);
    out[0] = kWrapMarker;
    store(out + kWrapLengthAt, static_cast<std::int32_t>(whLen));
    store(out + kWrapAgentTypeAt, header.agentType);
    store(out + kWrapMessageTypeAt, static_cast<std::int16_t>(header.messageType));
    store(out + kWrapRequestKeyAt, header.requestKey);
    store(out + kWrapContextIndexAt, header.contextIndex);
    store(out + kWrapAttachedAt, header.attached);
    char* at = out + kWrapFixedSize;
    for (std::size_t i = 0; named && i < std::size(given); ++i) {
        store(out + lengthsAt[i], static_cast<std::int32_t>(given[i].length));
        if (given[i].length) std::memcpy(at, given[i].data, given[i].length);
        at += given[i].length;
    }
    if (payload.length) std::memcpy(out + whLen, payload.data, payload.length);
    if (!ended) out[whLen + payload.length] = '\n';
    return static_cast<std::int64_t>(whLen + behind);
}

}  // namespace vx
