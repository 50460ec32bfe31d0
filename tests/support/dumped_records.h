// Dumped records: what the code under test has handed to the data channel, as text.
//
// A test opens the channel once (a run in progress, a chain, no data thread) and then reads all text that
// dumpData has taken since the start or the last clearDumped().
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/VXMonitorReport.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_word.h"

namespace vx::test {

// A run in progress with a chain of `count` nodes of `size` bytes.
inline void openDumping(vxApplication& app, std::int32_t count = 8, std::int32_t size = 65536) {
    vx_word_set(app.VXSys.bciDataBufferMaxCount, count);
    vx_word_set(app.VXSys.bciDataBufferMaxSize, size);
    app.Server.testRunRunning = 1;
    buff_list_init();
}
inline void closeDumping(vxApplication& app) {
    app.Server.testRunRunning = 0;
    vxFreeChain(app.data.chain);
}

// All text, oldest first.
inline std::string textOf(const VXBufferChain& chain) {
    std::string text;
    for (const VXBufferNode* head : {chain.readListHead, chain.writeListHead})
        for (const VXBufferNode* node = head; node; node = node->next)
            text.append(node->buffer, static_cast<std::size_t>(node->use_len));
    return text;
}
inline std::string dumpedText(const vxApplication& app) {
    return textOf(app.data.chain);
}
// The same, one element a record, without the newlines.
inline std::vector<std::string> dumpedRecords(const vxApplication& app) {
    std::vector<std::string> records(1);
    for (const char byte : dumpedText(app)) {
        if (byte == '\n') {
            records.emplace_back();
        } else {
            records.back() += byte;
        }
    }
    if (records.back().empty()) records.pop_back();
    return records;
}
// Forgets what was dumped so far.
inline void clearDumped(vxApplication& app) {
    for (VXBufferNode* head : {app.data.chain.readListHead, app.data.chain.writeListHead})
        for (VXBufferNode* node = head; node; node = node->next) node->use_len = 0;
}

// What a monitor's generator writes.
inline std::string reportOf(bool (*generate)(char* buffer, std::int32_t* length)) {
    const auto buffer = std::make_unique<char[]>(kReportBufferSize);
    std::int32_t length = 0;
    generate(buffer.get(), &length);
    return {buffer.get(), static_cast<std::size_t>(length)};
}

}  // namespace vx::test
