#include "commonlibc/proxyServer/vx_udp_header.h"

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/udp_fixture.h"

namespace vx::test {
namespace {

using std::string;

// Payloads of the messages that a datagram gives, in a block of exactly its size.
std::vector<string> messagesOf(const string& bytes) {
    const auto block = std::make_unique<char[]>(bytes.size());
    bytes.copy(block.get(), bytes.size());
    const VXByteView datagram(block.get(), bytes.size());
    std::vector<string> payloads;
    std::size_t position = 0;
    VXByteView message;
    while (vxUdpNextMessage(datagram, position, message)) {
        VXUdpHeader header;
        if (!get_ws_param_values(message, header)) {
            payloads.emplace_back("(refused)");
            continue;
        }
        for (const VXByteView& text : {header.apiReqId, header.funcName, header.tags})
            EXPECT_LE(text.size(), message.size());
        const auto at = static_cast<std::size_t>(header.whLen);
        payloads.emplace_back(message.data() + at, message.size() - at);
    }
    EXPECT_LE(position, bytes.size());
    return payloads;
}

// The same datagram with a 32-bit field changed.
string with(string bytes, std::size_t at, std::int32_t value) {
    for (int i = 0; i < 4; ++i)
        bytes[at++] = static_cast<char>(static_cast<std::uint32_t>(value) >> (8 * i) & 0xFF);
    return bytes;
}

const string kRecord = endFrame(7, 200, 1000);
const string kRecords = wrapped(VXWrapType::kRecords, 3, kRecord);
const string kBeat = wrapped(VXWrapType::kHeartbeat, 3);
const string kNamed = introduced(VXWrapType::kHeartbeat, "pay");
constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
constexpr auto kRecordLength = kWrapFixedSize + 5;

TEST(WrappedMessages, AreCutOutOfADatagram) {
    const struct {
        const char* name;
        string datagram;
        std::vector<string> payloads;
    } rows[] = {
        {"a_record", kRecords, {kRecord}},
        {"several", kRecords + kBeat + kNamed + kRecords, {kRecord, "\n", "\n", kRecord}},
        {"a_record_header_alone", with(kRecords, kWrapLengthAt, 41).substr(0, 41) + "\n", {"\n"}},
        {"a_text_ends_at_its_newline",
         wrapped(VXWrapType::kLogText, 3, "a log line") + kBeat,
         {"a log line\n", "\n"}},
        {"what_stands_before_a_bad_one_counts", kRecords + "x" + kRecords, {kRecord}},
        {"a_rest_below_a_header", kRecords + string(40, '^'), {kRecord}},
        {"header_length_40", with(kBeat, kWrapLengthAt, 40).replace(40, 5, "\n\n\n\n\n"), {"\n"}},
        {"header_length_39", with(kBeat, kWrapLengthAt, 39), {}},
        {"header_length_all", with(kBeat, kWrapLengthAt, static_cast<int>(kBeat.size())), {}},
        {"no_newline", kBeat.substr(0, kBeat.size() - 1) + "x", {}},
        {"record_length_one_too_long",
         with(kRecords, kRecordLength, static_cast<int>(kRecord.size()) + 1),
         {}},
        {"record_length_11", with(kRecords, kRecordLength, 11), {}},
        {"record_ends_elsewhere", with(kRecords, kRecordLength, 13), {}},
        {"record_cut_in_its_header", kRecords.substr(0, 41 + 8), {}},
        {"text_length_negative", with(kNamed, kWrapAwsReqLenAt, -1), {"(refused)"}},
        {"texts_beyond_the_header", with(kNamed, kWrapTagsLenAt, kMax), {"(refused)"}},
        {"texts_one_too_long", with(kNamed, kWrapAwsReqLenAt, 1), {"(refused)"}},
    };
    for (const auto& row : rows) EXPECT_EQ(messagesOf(row.datagram), row.payloads) << row.name;
}

}  // namespace
}  // namespace vx::test
