// Fixture: a filed flowpath, 77, and the agent's messages about its headers.
#pragma once

#include <string>

#include "commonlibc/VXKeywords.h"
#include "tests/support/flowpath_fixture.h"
#include "tests/support/record_stream.h"

namespace vx::test {

class HeaderFixture : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        app->Server.isTenRecordDump = 1;
        app->VXBCISetting.agentTypeCode = kAgentJava;
        app->data.data_thread_running = 1;
        slot = takeSlotWithBt();
        vxFileSlot(slot, "77");
    }
    void keyword(const char* name, std::string value) {
        vxApplyKeyword(NameToIndex(name), value.data(), name);
    }
    // One message of type 6; `agentTrace` is what the agent found out by itself.
    void headers(const char* type, const std::string& text, const char* agentTrace = "") {
        readBytes(
            *app,
            frameOf(transactionEncodeHttp,
                    VXHttpRecord{
                        404, 0, 0, 77, {text.data(), text.size()}, wire(type), wire(agentTrace), {}, {}}));
    }
    // The records that a message leaves, names apart.
    std::string recordsOf(const char* type, const std::string& text) {
        clearDumped(*app);
        headers(type, text);
        std::string all;
        for (const std::string& record : dumpedRecords(*app))
            if (!record.starts_with("6,")) all += record;
        return all;
    }

    vxTD* slot = nullptr;
};

}  // namespace vx::test
