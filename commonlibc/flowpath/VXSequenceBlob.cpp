#include "commonlibc/flowpath/VXSequenceBlob.h"

#include <array>
#include <charconv>
#include <cstring>
#include <iterator>

#include "commonlibc/flowpath/VXFlowpathRecords.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::int32_t kEntry = 0, kExit = 1, kNoItem = 2, kLastType = 4;
constexpr std::size_t kNumbersSize = 128;  // an item without its URL: five numbers and their marks
constexpr std::int64_t kShortNumber = 10000;

constexpr auto kPairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

// The numbers of an item, in a buffer that holds all of them: nothing is checked on the way.
class ItemText {
public:
    ItemText& mark(const char* marks, std::size_t length) {
        std::memcpy(at_, marks, length);
        at_ += length;
        return *this;
    }
    // Ids and times mostly have up to four digits.
    ItemText& number(std::int64_t value) {
        if (value < 0 || value >= kShortNumber) {
            at_ = std::to_chars(at_, text_ + sizeof(text_), value).ptr;
            return *this;
        }
        const auto digits = static_cast<std::size_t>(value);
        return digits < 100 ? lead(digits) : lead(digits / 100).mark(&kPairs[digits % 100 * 2], 2);
    }
    void appendTo(VXWriter& out) {
        out.bytes(text_, static_cast<std::size_t>(at_ - text_));
        at_ = text_;
    }

private:
    ItemText& lead(std::size_t pair) {
        return pair < 10 ? mark(&kPairs[pair * 2 + 1], 1) : mark(&kPairs[pair * 2], 2);
    }

    char text_[kNumbersSize];
    char* at_ = text_;
};

// A flowpath mostly stays on its thread, whose long number is therefore formatted once.
void writeThread(ItemText& text, vxTD* slot, std::int64_t threadId) {
    if (slot->shownThread != threadId || !slot->shownThreadLength) {
        char* end = std::to_chars(slot->shownThreadText, std::end(slot->shownThreadText), threadId).ptr;
        slot->shownThreadLength = static_cast<std::uint8_t>(end - slot->shownThreadText);
        slot->shownThread = threadId;
    }
    text.mark(slot->shownThreadText, slot->shownThreadLength);
}

void writeEntry(VXWriter& out, ItemText& text, const VXBlobItem& item) {
    if (item.urlFlag) {
        text.mark(":1:", 3).appendTo(out);
        out.recordText(item.url);
    }
    text.mark("_0_", 3).number(item.time).mark("__", 2).appendTo(out);
}

void writeExit(VXWriter& out, ItemText& text, const VXBlobItem& item, const std::int64_t* sequence) {
    text.mark("_1", 2);
    if (sequence) text.mark(":", 1).number(*sequence);
    text.mark("_", 1).number(item.time);
    if (item.cpuTime < 0) {
        text.mark("____", 4);
    } else {
        text.mark("_", 1).number(item.cpuTime).mark("___", 3);
    }
    text.appendTo(out);
}

bool carriesSequence(const VXBlobItem& item) {
    return item.type == kExit && item.phaseFlag &&
           vx_word_get(vxCurrent()->VXSys.enableProcessNotificationPhase) == 1;
}

}  // namespace

void updateFPSeqBlob(vxTD* slot, const VXBlobItem& item) {
    if (item.type < kEntry || item.type == kNoItem || item.type > kLastType) return;
    VXWriter out(slot->sequenceBlob + slot->sequenceBlobLen,
                 static_cast<std::size_t>(kSequenceBlobSize - slot->sequenceBlobLen));
    ItemText text;
    text.number(static_cast<std::int32_t>(item.methodId)).mark(":", 1);
    writeThread(text, slot, item.threadId);
    if (item.type == kEntry) {
        writeEntry(out, text, item);
    } else {
        writeExit(out, text, item, carriesSequence(item) ? &slot->seqNo : nullptr);
    }
    slot->sequenceBlobLen += static_cast<std::int32_t>(out.length());
    checkToDumpFPSeqBlob(slot, item.threadId);
}

void appendExceptionRecordInSeqBlob(vxTD* slot, std::int64_t threadId) {
    const VXGuard blob(slot->blobMutex);
    VXWriter out(slot->sequenceBlob + slot->sequenceBlobLen,
                 static_cast<std::size_t>(kSequenceBlobSize - slot->sequenceBlobLen));
    out.put('e').number(slot->seqNo).put('_');
    slot->sequenceBlobLen += static_cast<std::int32_t>(out.length());
    checkToDumpFPSeqBlob(slot, threadId);
}

void checkToDumpFPSeqBlob(vxTD* slot, std::int64_t threadId) {
    if (slot->sequenceBlobLen >= kSequenceBlobDumpAt) dumpIncompleteFlowpathSeqBlock(slot, threadId);
}

void updateDebugModeData(vxTD* slot, std::uint32_t methodId, int kind, std::int64_t threadId) {
    // The room shrinks by two for each byte that is there, so the text never reaches the end of the array.
    const std::int32_t room =
        (static_cast<std::int32_t>(sizeof(slot->debugData)) / 2 - slot->debugDataLen) * 2;
    if (room < 1) return;
    VXWriter out(slot->debugData + slot->debugDataLen, static_cast<std::size_t>(room) - 1);
    if (slot->debugDataLen) out.put('|');
    out.number(static_cast<std::int32_t>(methodId)).put(':').number(threadId);
    out.put('_').number(kind).put('_').number(slot->seqNo);
    out.bytes("_0x", 3).hex(reinterpret_cast<std::uintptr_t>(slot));
    slot->debugDataLen += static_cast<std::int32_t>(out.length());
}

}  // namespace vx
