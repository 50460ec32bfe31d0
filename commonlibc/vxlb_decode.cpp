#include "commonlibc/vxlb_decode.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_bytes.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {
namespace {

constexpr char kStartMark = '^', kEndMark = '\n';
constexpr std::int32_t kHeaderSize = 14;
constexpr std::int32_t kHeaderLength = 12;     // what a header says of itself
constexpr std::int32_t kMinTotalPlusTwo = 12;  // a total length plus 2 below this is no frame's
constexpr char kKeepAlive[] = {'1', '0', ',', '\n'};
constexpr int kShownOfBuffer = 256;  // bytes of a read that a trace line shows

// Where a call stands in its bytes. A skipped corrupt frame takes 15 bytes but counts 14, so `left` then
// claims more than is there; `bytes` is what is there, and nothing behind it is looked at.
struct Cursor {
    VXByteView bytes;
    std::int32_t left;
    std::int32_t procIndex;
    std::int32_t records = 0, newlines = 0;

    void skip(std::int32_t count, std::int32_t counted) {
        bytes.take(static_cast<std::size_t>(count));
        left -= counted;
    }
    void skipCorruptFrame() { skip(15, 14); }
    bool atEnd() const { return left < 1 || bytes.size() == 0; }
    bool holds(std::int64_t count) const {
        return left >= count && bytes.size() >= static_cast<std::size_t>(count);
    }
};

enum class Step : std::uint8_t { kGoOn, kPartial, kAccepted };

constexpr int kCorruptTraced = 20;  // lines of all instances in a minute
constexpr std::int64_t kUsPerMinute = 60000000;
std::atomic<std::int64_t> corruptMinute{0};
std::atomic<int> corruptLines{0};

// An agent of another version may send what is corrupt here with each transaction: a line for each would hold
// up the listener and drive everything else out of the trace. All are counted.
void traceCorrupt(int level, const Cursor& at) {
    if (!vxTraceOn(level, TraceModule::kControlThread)) return;
    const std::int64_t minute = vxCurrent()->decoder.readTimeUs / kUsPerMinute;
    if (corruptMinute.exchange(minute, std::memory_order_relaxed) != minute) corruptLines = 0;
    if (corruptLines.fetch_add(1, std::memory_order_relaxed) >= kCorruptTraced) return;
    VX_TRACE(level, kControlThread, kInfo, "procIndex = '%d', Corrupt data received, ignoring byte",
             at.procIndex);
}

// The cursor stands at a start mark.
Step takeFrame(Cursor& at, int singleRecord, const char* fpKey) {
    if (!at.holds(kHeaderSize)) {
        VX_TRACE(2, kControlThread, kInfo, "<2.>bytes ignored = %d, procIndex = '%d'", at.left, at.procIndex);
        return Step::kPartial;
    }
    const std::int32_t headerLength = at.bytes.i32At(1), total = at.bytes.i32At(5), type = at.bytes.i32At(9);
    if (headerLength != kHeaderLength || std::int64_t{total} + 2 < kMinTotalPlusTwo) {
        traceCorrupt(1, at);
        vxCountRefusedMessage();
        at.skip(2, 2);
        return Step::kGoOn;
    }
    if (!at.holds(total)) {
        VX_TRACE(2, kControlThread, kInfo,
                 "<1.>records processed = '%'d, bytes ignored = %d, procIndex = '%d'", at.records, at.left,
                 at.procIndex);
        return Step::kPartial;
    }
    if (at.bytes.u8At(static_cast<std::size_t>(total) - 1) != kEndMark) {
        vxCountRefusedMessage();
        at.skipCorruptFrame();
        return Step::kGoOn;
    }
    const char* body = at.bytes.data() + kHeaderSize;
    if (readDataMessage(body, std::int64_t{total} - kHeaderSize, type, singleRecord, fpKey) ==
        kMessageCorrupt) {
        at.skipCorruptFrame();
        traceCorrupt(0, at);
        return Step::kGoOn;
    }
    at.skip(total, total);
    ++at.records;
    if (!singleRecord)
        VX_TRACE(2, kControlThread, kInfo,
                 "Record processed = '%d', len processed = %d, bytes left = %d, procIndex = '%d'", at.records,
                 total, at.left, at.procIndex);
    return Step::kAccepted;
}

bool atKeepAlive(const Cursor& at) {
    return at.bytes.size() >= sizeof(kKeepAlive) &&
           std::memcmp(at.bytes.data(), kKeepAlive, sizeof(kKeepAlive)) == 0;
}

// Takes what stands at the cursor: a newline, a keep-alive, a frame, or one byte of noise.
Step takeNext(Cursor& at, int singleRecord, const char* fpKey) {
    const char byte = *at.bytes.data();
    if (byte == kStartMark) return takeFrame(at, singleRecord, fpKey);
    if (byte == kEndMark) {
        ++at.newlines;
        at.skip(1, 1);
    } else if (atKeepAlive(at)) {
        at.skip(sizeof(kKeepAlive), sizeof(kKeepAlive));
        VX_TRACE(2, kControlThread, kInfo, "10 Record received for processIndex %d", at.procIndex);
    } else {
        VX_TRACE(2, kControlThread, kInfo, "Invalid character %c, bytes left = %d, procIndex = '%d'", byte,
                 at.left, at.procIndex);
        at.skip(1, 1);
    }
    return Step::kGoOn;
}

void keepPartial(VXDecoderState_t& decoder, const Cursor& at, bool partial) {
    decoder.partialLength = 0;
    decoder.partialBuffer[0] = '\0';
    if (!partial || at.left < 1) return;
    if (at.left >= kPartialSize) return vxCountRefusedMessage();
    const auto length = std::min(static_cast<std::int32_t>(at.bytes.size()), at.left);
    std::memcpy(decoder.partialBuffer, at.bytes.data(), static_cast<std::size_t>(length));
    decoder.partialBuffer[length] = '\0';
    decoder.partialLength = length;
}

// Bytes of the frame at the start mark, as its head says them; 0 for no head of a frame.
std::int32_t frameLength(const VXByteView& bytes) {
    const std::int32_t total = bytes.i32At(5);
    return bytes.i32At(1) == kHeaderLength && total >= kHeaderSize ? total : 0;
}

void markAccepted(const vxApplication& app, std::int32_t procIndex) {
    if (procIndex < 0 || procIndex >= app.identity.numProcess.load(std::memory_order_acquire)) return;
    processAt(app, procIndex)->firstWord = 0;
}

}  // namespace

int decodeMessage(const char* buffer, std::int32_t bytesRead, std::int32_t procIndex, int singleRecord,
                  const char* fpKey) {
    return vxDecodeMessageAt(vxlb_moment(), buffer, bytesRead, procIndex, singleRecord, fpKey);
}

int vxDecodeMessageAt(const VXMoment& now, const char* buffer, std::int32_t bytesRead, std::int32_t procIndex,
                      int singleRecord, const char* fpKey) {
    vxApplication& app = *vxCurrent();
    const VXGuard lock(app.decoder.decodeMutex);
    const std::int32_t length = buffer ? std::max(bytesRead, 0) : 0;
    VX_TRACE(2, kControlThread, kInfo, "Method Called for decoding msg:%.*s",
             std::min(length, kShownOfBuffer), buffer ? buffer : "");
    app.decoder.readTimeUs = now.wallUs;
    app.decoder.readSteadyMs = now.steadyMs;
    Cursor at{VXByteView(buffer, static_cast<std::size_t>(length)), length, procIndex};
    Step step = Step::kGoOn;
    while (!at.atEnd() && step != Step::kPartial && !(singleRecord && step == Step::kAccepted))
        step = takeNext(at, singleRecord, fpKey);
    if (at.records) markAccepted(app, procIndex);
    if (!singleRecord) keepPartial(app.decoder, at, step == Step::kPartial);
    VX_TRACE(2, kControlThread, kInfo, "records processed = %d, new line count = %d, partial count = %d",
             at.records, at.newlines, step == Step::kPartial ? 1 : 0);
    return 0;
}

std::int32_t vxRefuseMessages(const char* bytes, std::int32_t length) {
    VXByteView left(bytes, static_cast<std::size_t>(std::max(length, 0)));
    while (const void* mark = std::memchr(left.data(), kStartMark, left.size())) {
        left.take(static_cast<std::size_t>(static_cast<const char*>(mark) - left.data()));
        const bool headStands = left.size() >= kHeaderSize;
        const auto frame = static_cast<std::size_t>(headStands ? frameLength(left) : kHeaderSize);
        if (frame > left.size() && left.size() < kPartialSize) return static_cast<std::int32_t>(left.size());
        vxCountRefusedMessage();
        left.take(frame == 0 || frame > left.size() ? 1 : frame);
    }
    return 0;
}

}  // namespace vx
