#include "commonlibc/proxyServer/vx_udp_header.h"

#include <cstring>
#include <iterator>

#include "commonlibc/proxyServer/vx_udp_refusals.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::int32_t kMinHeaderLength = 40;
constexpr std::int64_t kRecordHead = 9;  // bytes of a record up to the end of its length
constexpr std::int64_t kRecordLengthAt = 5;
constexpr std::int32_t kMinRecordLength = 12;
constexpr const char* kWrongHeaderLength = "Wrong msg header len";
constexpr char kMessageEnd = '\n';
constexpr const char* kAgentTypes[] = {"Python", "php", "Dotnet", "Java", "go"};

std::int16_t i16At(VXByteView bytes, std::size_t offset) {
    const unsigned low = bytes.u8At(offset), high = bytes.u8At(offset + 1);
    return static_cast<std::int16_t>(static_cast<std::uint16_t>(low | high << 8));
}

// The four texts, in their order.
bool takeTexts(VXByteView message, VXUdpHeader& header) {
    constexpr std::size_t lengthsAt[] = {kWrapApiReqLenAt, kWrapAwsReqLenAt, kWrapFuncNameLenAt,
                                         kWrapTagsLenAt};
    VXByteView* const texts[] = {&header.apiReqId, &header.awsReqId, &header.funcName, &header.tags};
    std::int64_t sum = kWrapFixedSize;
    for (const std::size_t at : lengthsAt) {
        if (message.i32At(at) < 0) return false;
        sum += message.i32At(at);
    }
    if (sum > header.whLen) return false;
    VXByteView rest = message;
    rest.take(kWrapFixedSize);
    for (std::size_t i = 0; i < std::size(texts); ++i)
        *texts[i] = rest.take(static_cast<std::size_t>(message.i32At(lengthsAt[i])));
    return true;
}

// Where a message ends: its newline, counted from the message's start. What makes it malformed is in
// `fault`, to be traced with the position (and the datagram's size); 0 then.
struct Extent {
    std::int64_t newline;
    const char* fault;
};

Extent recordExtent(VXByteView message, std::int64_t at) {
    const auto left = static_cast<std::int64_t>(message.size());
    if (message.u8At(static_cast<std::size_t>(at)) == kMessageEnd) return {at, nullptr};
    if (at + kRecordHead > left) return {0, "Msg hdr pre index is more than read bytes"};
    const std::int32_t length = message.i32At(static_cast<std::size_t>(at + kRecordLengthAt));
    if (length < kMinRecordLength) return {0, "Wrong length of Msg hdr"};
    at += std::int64_t{length} - 1;
    if (at >= left) return {0, "Msg hdr post index is more than read bytes"};
    const bool ended = message.u8At(static_cast<std::size_t>(at)) == kMessageEnd;
    return {at, ended ? nullptr : "Msg hdr did not find newline character"};
}

Extent textExtent(VXByteView message, std::int64_t at) {
    const auto left = message.size() - static_cast<std::size_t>(at);
    const char* text = message.data() + at;
    const void* newline = std::memchr(text, kMessageEnd, left);
    if (!newline) return {0, "Msg hdr did not find newline character"};
    return {at + (static_cast<const char*>(newline) - text), nullptr};
}

Extent extentOf(VXByteView message) {
    const std::int32_t length = message.i32At(kWrapLengthAt);
    if (length >= static_cast<std::int64_t>(message.size())) return {0, "Index is more than read bytes"};
    return i16At(message, kWrapMessageTypeAt) == static_cast<std::int16_t>(VXWrapType::kRecords)
               ? recordExtent(message, length)
               : textExtent(message, length);
}

// What is wrong with the message in front of `rest`; its extent, without a fault, where nothing is.
Extent checkedExtent(VXByteView rest) {
    if (rest.u8At(0) != kWrapMarker) return {0, "First byte is not ^"};
    if (rest.i32At(kWrapLengthAt) < kMinHeaderLength) return {0, kWrongHeaderLength};
    return extentOf(rest);
}

// The texts that speak of bytes end with how many were read, that of the header's length with it.
void traceFault(const char* fault, int position, VXByteView rest, std::size_t size) {
    if (!vxUdpTracesRefusal()) return;
    if (fault == kWrongHeaderLength)
        VX_TRACE(1, kControlThread, kError, "Failed to parse UDP packet at pos %d. %s %d", position, fault,
                 rest.i32At(kWrapLengthAt));
    else if (std::strstr(fault, "read bytes"))
        VX_TRACE(1, kControlThread, kError, "Failed to parse UDP packet at pos %d. %s %d", position, fault,
                 static_cast<int>(size));
    else
        VX_TRACE(1, kControlThread, kError, "Failed to parse UDP packet at pos %d. %s", position, fault);
}

}  // namespace

bool get_ws_param_values(VXByteView message, VXUdpHeader& header) {
    if (message.size() < kWrapFixedSize) return false;
    header = VXUdpHeader{};
    header.whLen = message.i32At(kWrapLengthAt);
    if (header.whLen < kMinHeaderLength || header.whLen > static_cast<std::int64_t>(message.size()))
        return false;
    header.agentType = i16At(message, kWrapAgentTypeAt);
    header.messageType = i16At(message, kWrapMessageTypeAt);
    header.requestKey = message.i64At(kWrapRequestKeyAt);
    header.contextIndex = message.i32At(kWrapContextIndexAt);
    header.attached = message.i32At(kWrapAttachedAt);
    return header.contextIndex != kWrapIndexUnknown || takeTexts(message, header);
}

bool vxUdpNextMessage(VXByteView datagram, std::size_t& position, VXByteView& message) {
    VXByteView rest = datagram;
    rest.take(position);
    if (rest.size() < kWrapFixedSize) return false;
    const Extent extent = checkedExtent(rest);
    if (extent.fault) {
        traceFault(extent.fault, static_cast<int>(position), rest, datagram.size());
        vxUdpCountRefusal();
        return false;
    }
    message = rest.take(static_cast<std::size_t>(extent.newline) + 1);
    position += message.size();
    return true;
}

const char* vxUdpAgentTypeName(std::int16_t code) {
    return code >= 0 && static_cast<std::size_t>(code) < std::size(kAgentTypes)
               ? kAgentTypes[static_cast<std::size_t>(code)]
               : "Unknown";
}

}  // namespace vx
