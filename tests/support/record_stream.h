// Agent records for tests: frames as text, and the reads that bring them to the decoder.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_decode.h"
#include "commonlibc/vxlb_encode.h"

namespace vx::test {

inline VXWireText wire(const char* text) {
    return {text, text ? std::strlen(text) : 0};
}

// The frame that an encoder writes; empty when it refuses.
template <class Record>
std::string frameOf(std::int64_t (*encode)(char*, std::size_t, const Record&), const Record& record) {
    std::string out(70000, '\0');
    const std::int64_t length = encode(out.data(), out.size(), record);
    out.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return out;
}
inline std::string startFrame(std::int64_t flowpath, const char* url, std::int64_t timeUs) {
    return frameOf(transactionStartEncode,
                   VXTransactionStart{flowpath, 0, timeUs, 1, {}, wire(url), {}, {}, {}, {}});
}
inline std::string entryFrame(std::int64_t flowpath, const char* method, std::int64_t timeUs) {
    return frameOf(MethodEntryEncode, VXMethodEntryRecord{0, flowpath, 1, timeUs, wire(method), {}, {}, {}});
}
inline std::string exitFrame(std::int64_t flowpath, const char* method, std::int64_t wallUs,
                             std::int64_t timeUs) {
    return frameOf(MethodExitEncode,
                   VXMethodExitRecord{200, 0, 0, 0, 1, wallUs, flowpath, 0, 0, timeUs, wire(method), {}, {}});
}
inline std::string endFrame(std::int64_t flowpath, std::int32_t status, std::int64_t timeUs) {
    return frameOf(transactionEndEncode, VXTransactionEnd{status, flowpath, timeUs, 0, 0});
}
inline std::string resetFrame(std::int64_t flowpath) {
    char out[64];
    return std::string(out, static_cast<std::size_t>(transactionResetEncode(out, sizeof(out), flowpath)));
}
// An exception: the record that needs nothing of the engine but a filed slot with a BT. Its 38 record ends in
// the stack trace.
inline std::string exceptionFrame(std::int64_t flowpath, const char* stackTrace) {
    return frameOf(ExceptionEncode,
                   VXExceptionRecord{0, flowpath, 0, 0, wire("E"), {}, {}, wire("m"), {}, wire(stackTrace)});
}
inline std::string thrownFrame(std::int64_t flowpath, const char* method) {
    return frameOf(ExceptionMethodExitEncode,
                   VXExceptionExitRecord{0, flowpath, 0, 0, 0, 0, wire(method), {}});
}
// A frame with any numbers in its header and any body (its newline included).
inline std::string rawFrame(std::int32_t headerLength, std::int32_t total, std::int32_t type,
                            const std::string& body) {
    std::string frame = "^";
    for (const std::int32_t value : {headerLength, total, type})
        for (int i = 0; i < 4; ++i)
            frame += static_cast<char>(static_cast<std::uint32_t>(value) >> (8 * i) & 0xFF);
    return frame + "|" + body;
}
// The same frame with another 32-bit value at `offset` of its body.
inline std::string patched(const std::string& frame, std::size_t offset, std::int32_t value) {
    std::string bytes;
    for (int i = 0; i < 4; ++i)
        bytes += static_cast<char>(static_cast<std::uint32_t>(value) >> (8 * i) & 0xFF);
    return frame.substr(0, 14 + offset) + bytes + frame.substr(14 + offset + 4);
}

// One read of the listener: the carry-over, then the new bytes, in a block of exactly that size.
inline void readBytes(vxApplication& app, const std::string& bytes, std::int32_t procIndex = 0) {
    VXDecoderState_t& decoder = app.decoder;
    std::vector<char> read(decoder.partialBuffer, decoder.partialBuffer + decoder.partialLength);
    read.insert(read.end(), bytes.begin(), bytes.end());
    decoder.partialLength = 0;
    decoder.partialBuffer[0] = '\0';
    decodeMessage(read.data(), static_cast<std::int32_t>(read.size()), procIndex, 0, nullptr);
}

}  // namespace vx::test
