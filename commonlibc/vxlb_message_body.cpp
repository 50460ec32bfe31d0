#include "commonlibc/vxlb_message_body.h"

#include <algorithm>
#include <cstring>

#include "commonlibc/vxlb_mem.h"

namespace vx {
namespace {

constexpr std::size_t kTextBlockSize = kBodyMax + kMessageTexts;

// Gives the thread's block back when the thread ends.
struct TextBlock {
    char* bytes = nullptr;
    ~TextBlock() { VXLB_FREE(bytes, "message texts", -1); }
};
thread_local TextBlock tlTextBlock;
constinit thread_local char* tlTexts = nullptr;  // the same, without the cost of a guarded access

char* textBlock() {
    if (!tlTexts) {
        tlTextBlock.bytes = static_cast<char*>(VXLB_MALLOC(kTextBlockSize, "message texts", -1));
        tlTexts = tlTextBlock.bytes;
    }
    return tlTexts;
}

// Reads the declared lengths; missing strings have length 0.
BodyResult takeLengths(const VXMessageShape& shape, std::size_t size, VXMessageBody& out) {
    std::int64_t sum = shape.fixedLength;
    for (std::size_t i = 0; i < shape.textCount; ++i) {
        const std::int32_t length = out.fixed.i32At(shape.lengthAt[i]);
        if (length < 0 && shape.refusesNegative) return BodyResult::kNegative;
        out.length[i] = static_cast<std::size_t>(std::max(length, 0));
        if (i < shape.checkedTexts) sum += static_cast<std::int64_t>(out.length[i]);
    }
    return static_cast<std::uint64_t>(sum) > size ? BodyResult::kShort : BodyResult::kTaken;
}

// Copies one string and answers where the next one goes.
char* copyText(VXByteView text, char* to, char*& start, std::size_t& length) {
    if (!text.size()) {
        start = nullptr;
        length = 0;
        return to;
    }
    std::memcpy(to, text.data(), text.size());
    to[text.size()] = '\0';
    start = to;
    length = std::strlen(to);
    return to + text.size() + 1;
}

}  // namespace

BodyResult vxlb_take_body(const VXMessageShape& shape, VXByteView bytes, VXMessageBody& out) {
    const std::size_t size = bytes.size();
    if (size < shape.fixedLength || size > static_cast<std::size_t>(kBodyMax)) return BodyResult::kShort;
    out.fixed = bytes.take(shape.fixedLength);
    if (const BodyResult result = takeLengths(shape, size, out); result != BodyResult::kTaken) return result;
    char* to = shape.textCount ? textBlock() : nullptr;
    if (!to && shape.textCount) return BodyResult::kNoMemory;
    for (std::size_t i = 0; i < shape.textCount; ++i) {
        // What is not checked ends before the newline.
        if (i == shape.checkedTexts) bytes = VXByteView(bytes.data(), bytes.size() - (bytes.size() ? 1 : 0));
        const VXByteView text = bytes.take(out.length[i]);
        to = copyText(text, to, out.text[i], out.length[i]);
        if (out.length[i] < text.size() && shape.wholeTexts >> i & 1) return BodyResult::kTorn;
    }
    return BodyResult::kTaken;
}

}  // namespace vx
