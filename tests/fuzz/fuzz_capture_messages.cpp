// Fuzz target: exceptions, headers and exits by exception inside a transaction, from their bodies to the
// records, with all capture on.
//
// The first byte picks the message type (5, 6 or 7), the second one the settings; the rest is the body, in
// which the number of the transaction is put in place. Whatever comes in, the records stay whole lines.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "commonlibc/VXSessionKeywords.h"
#include "commonlibc/http/VXHttpReqRespCaptureSettings.h"
#include "commonlibc/vxlb_messages.h"
#include "tests/support/fuzz_engine.h"
#include "tests/support/record_stream.h"

namespace vx {
namespace {

constexpr std::int64_t kFlowpath = 77;
constexpr std::int64_t kStartUs = 1'700'000'000'000'000;
constexpr std::size_t kRecordMax = 65535;
struct Type {
    std::int32_t number;
    std::size_t flowpathAt;
};
constexpr Type kTypes[] = {{5, 28}, {6, 32}, {7, 12}};

void applySettings(vxApplication& app, unsigned bits) {
    vx_word_set(app.VXSys.enableExceptionInSeqBlob, bits & 1);
    vx_word_set(app.VXSys.enableIPResourceURL, bits >> 1 & 1);
    parseExceptionFilteringList(bits >> 3 & 1 ? "E,F,Shop.Gone" : "NA");
    setExceptionCaptureSettings(bits >> 4 & 1 ? "1%200" : "2%201%201%209%201");
}

void apply(void (*parser)(char*, const char*, int), const char* keyword, std::string value) {
    parser(value.data(), keyword, -1);
}

void applyHeaderSettings(vxApplication& app, unsigned bits) {
    for (const char* keyword : {"captureHTTPReqFullFp", "captureHTTPRespFullFp"})
        apply(setHttpReqRespCaptureSettings, keyword, bits & 1 ? "3%200%200%200" : "3%201%201%205");
    apply(sethdrListForValueAsId, "hdrListForValueAsId", bits >> 1 & 1 ? "Host,A" : "");
    apply(setpropheadcheck, "enableOTELStandard",
          bits >> 2 & 1 ? "1%201%201%201%201%200%200%200%200" : "0%200%200%200%200%200%200%200%200");
    std::string list = "Host\nrequest|A\n";
    setHttpHashMapNode(list.data());
    app.VXBCISetting.agentTypeCode = static_cast<std::int32_t>(bits >> 5 & 7);
    app.Server.isTenRecordDump = 1;
    app.data.data_thread_running = 1;
}

void checkRecords(const std::string& text) {
    if (!text.empty() && text.back() != '\n') std::abort();
    for (std::size_t at = 0, end = 0; at < text.size(); at = end + 1) {
        end = text.find('\n', at);
        const std::string record = text.substr(at, end - at);
        const std::size_t number = record.find_first_not_of("0123456789");
        if (number == 0 || number == std::string::npos || record[number] != ',') std::abort();
        if (record.size() >= kRecordMax || record.find('\r') != std::string::npos) std::abort();
    }
}

}  // namespace
}  // namespace vx

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vx;
    if (size < 2) return 0;
    vxApplication& app = test::FuzzEngine::forInput();
    applySettings(app, data[1]);
    applyHeaderSettings(app, data[1]);
    const Type& type = kTypes[data[0] % std::size(kTypes)];
    std::string body(reinterpret_cast<const char*>(data) + 2, size - 2);
    if (body.size() >= type.flowpathAt + sizeof(kFlowpath))
        std::memcpy(body.data() + type.flowpathAt, &kFlowpath, sizeof(kFlowpath));
    body += '\n';

    test::readBytes(app, test::startFrame(kFlowpath, "/shop", kStartUs) +
                             test::entryFrame(kFlowpath, "Shop.buy", kStartUs));
    readDataMessage(body.data(), static_cast<std::int64_t>(body.size()), type.number, 0, nullptr);
    test::readBytes(app, test::endFrame(kFlowpath, 500, kStartUs + 1000));
    checkRecords(test::dumpedText(app));
    test::FuzzEngine::endInput();
    return 0;
}
