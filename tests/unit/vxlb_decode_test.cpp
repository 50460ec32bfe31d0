#include "commonlibc/vxlb_decode.h"

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/flowpath_fixture.h"
#include "tests/support/record_stream.h"
#include "tests/support/trace_file.h"

namespace vx {
namespace {

using namespace test;
using Names = std::vector<std::string>;

Names accepted;  // stack traces of the exceptions that came through

void accept(const char* record, std::int64_t length) {
    const std::string_view text(record, static_cast<std::size_t>(length) - 1);
    if (text.starts_with("38,")) accepted.emplace_back(text.substr(text.rfind(',') + 1));
}

// One flowpath, 77, whose exceptions are remembered.
class DecodeStream : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        vxFileSlot(takeSlotWithBt(), "77");
        vxDivertRecords(accept);
        accepted.clear();
    }
    void TearDown() override {
        vxDivertRecords(nullptr);
        FlowpathFixture::TearDown();
    }
    std::string carried() const {
        return {app->decoder.partialBuffer, static_cast<std::size_t>(app->decoder.partialLength)};
    }
};

const std::string kGood = exceptionFrame(77, "good");
const std::string kOther = exceptionFrame(77, "other");

std::string withoutEndMark(std::string frame) {
    frame.back() = 'x';
    return frame;
}
std::string firstOf(const std::string& bytes, std::size_t count) {
    return bytes.substr(0, count);
}

const Names kOneGood{"good"};

// What one read gives and what it leaves. A corrupt frame takes 15 bytes and counts 14; a wrong header length
// costs two. What is claimed beyond the end is neither read nor kept.
TEST_F(DecodeStream, PassesOverWhatIsNoFrameAndStaysInsideItsBytes) {
    const std::string corrupt = rawFrame(12, 15, 7, "x"), longest = rawFrame(12, INT32_MAX, 7, "a\n");
    const std::string allButOne = firstOf(kGood, kGood.size() - 1);
    const struct {
        const char* name;
        std::string read;
        Names records;
        std::string carried;
    } rows[] = {
        {"an unfinished keep-alive", "noise 10,10," + kGood, kOneGood, ""},
        {"header length 13", rawFrame(13, 20, 7, "abcde\n") + kGood, kOneGood, ""},
        {"total length negative", rawFrame(12, INT32_MIN, 7, "abcde\n") + kGood, kOneGood, ""},
        {"total length 10 ends in its type", rawFrame(12, 10, 10, "") + "." + kGood, kOneGood, ""},
        {"total length 14 has no body", firstOf(rawFrame(12, 14, 7, ""), 13) + "\n." + kGood, kOneGood, ""},
        {"type 8", rawFrame(12, 20, 8, "abcde\n") + kGood, kOneGood, ""},
        {"a corrupt frame of 14 bytes", rawFrame(12, 10, 10, ""), {}, ""},
        {"a mark follows", corrupt + "^", {}, "^"},
        {"13 bytes follow", corrupt + firstOf(kGood, 13), {}, firstOf(kGood, 13)},
        {"all but one byte follows", corrupt + allButOne, {}, allButOne},
        {"total length at its maximum", longest, {}, longest},
    };
    for (const auto& row : rows) {
        accepted.clear();
        app->decoder.partialLength = 0;
        readBytes(*app, row.read);
        EXPECT_EQ(accepted, row.records) << row.name;
        EXPECT_EQ(carried(), row.carried) << row.name;
    }
}

// The stream of every kind of thing that a connection carries, cut in two at every byte.
TEST_F(DecodeStream, GivesTheSameRecordsWhereverItIsCut) {
    const std::string stream =
        "\n10,\n" + kGood + "noise" + kOther + "^\x0d" + withoutEndMark(kOther) + "\n\n" + kGood + "10,\n";
    readBytes(*app, stream);
    const Names whole = accepted;
    EXPECT_EQ(whole, (Names{"good", "other", "good"}));
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        accepted.clear();
        readBytes(*app, firstOf(stream, cut));
        readBytes(*app, stream.substr(cut));
        EXPECT_EQ(accepted, whole) << "cut after " << cut;
        EXPECT_EQ(carried(), "") << "cut after " << cut;
    }
    accepted.clear();
    for (const char byte : stream) readBytes(*app, std::string(1, byte));
    EXPECT_EQ(accepted, whole);
}

TEST_F(DecodeStream, CarriesATailOf10239BytesAndDropsALongerOne) {
    const std::string longName(20000, 'n');
    const std::string record = exceptionFrame(77, longName.c_str());
    readBytes(*app, firstOf(record, 10239));
    EXPECT_EQ(carried(), firstOf(record, 10239));
    readBytes(*app, record.substr(10239));
    EXPECT_EQ(accepted, Names{longName});

    readBytes(*app, firstOf(record, 10240));
    EXPECT_EQ(carried(), "");
    readBytes(*app, record.substr(10240) + kGood);  // the rest is noise
    EXPECT_EQ(accepted, (Names{longName, "good"}));
    readBytes(*app, "^");
    decodeMessage("^^", INT32_MIN, 0, 0, nullptr);
    EXPECT_EQ(carried(), "") << "nothing to read";
}

TEST_F(DecodeStream, TracesAFewCorruptFramesInAMinuteWhateverTheLevel) {
    const TraceFile trace(*app, 0);
    const auto lines = [&] {
        const std::string text = trace.text();
        int count = 0;
        for (std::size_t at = 0; (at = text.find("Corrupt data received", at)) != std::string::npos; ++at)
            ++count;
        return count;
    };
    clock.advanceMs(120000);
    for (int i = 0; i < 100; ++i) readBytes(*app, rawFrame(12, 20, 8, "abcde\n"));
    EXPECT_EQ(lines(), 20);
    clock.advanceMs(60000);
    readBytes(*app, rawFrame(12, 20, 8, "abcde\n"));
    EXPECT_EQ(lines(), 21);
}

TEST_F(DecodeStream, CountsEachMessageThatCameToNothing) {
    const auto refusedBy = [&](const std::string& bytes) {
        const std::uint64_t before = app->decoder.messagesRefused;
        readBytes(*app, bytes);
        return app->decoder.messagesRefused - before;
    };
    EXPECT_EQ(refusedBy(kGood + "noise\n10,\n" + kOther), 0u);
    EXPECT_EQ(refusedBy("^\x0d" + withoutEndMark(kGood) + rawFrame(12, 20, 8, "abcde\n")), 3u);  // frames
    EXPECT_EQ(refusedBy(thrownFrame(78, "a") + entryFrame(78, "b", 1)), 2u);  // its start never came
    EXPECT_EQ(refusedBy(patched(kGood, 8, 2)), 1u);                           // a length
    app->Server.stopping = 1;
    EXPECT_EQ(refusedBy(startFrame(79, "/", 1) + endFrame(79, 200, 2)), 2u);  // no slot, so no end either
    EXPECT_EQ(refusedBy(firstOf(rawFrame(12, 70000, 7, std::string(20000, 'x')), 10254)), 1u);  // a long tail
    app->Server.testRunRunning = 0;
    EXPECT_EQ(refusedBy(kGood + kOther), 2u);  // the run was lost under an open transaction
}

}  // namespace
}  // namespace vx
