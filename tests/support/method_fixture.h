// Fixture: a flowpath on a current method table, and verbs for its entries and exits. Methods get ids from 3
// on; 1 and 2 are the instance's own.
#pragma once

#include <string>

#include "commonlibc/flowpath/VXMethodTrace.h"
#include "tests/support/flowpath_fixture.h"

namespace vx::test {

class MethodFixture : public FlowpathFixture {
protected:
    void SetUp() override {
        FlowpathFixture::SetUp();
        slot = takeSlotWithBt();
        takeMethodTable(slot);
    }
    void enter(const std::string& name, const char* url = nullptr, const char* parameters = nullptr) {
        vxMethodEntry(slot, {name.c_str(), name.size(), url, parameters, 0, atMs(5015), nullptr, 0});
    }
    void leave(const std::string& name, std::int32_t status = -1, std::int64_t cpu = -1,
               const char* phase = "") {
        vxMethodExit(slot, {name.c_str(), name.size(), cpu, status, nullptr, 7999, 0, 0, phase, 0, 0});
    }
    std::string takeBlob() {
        const std::string items = blobOf(slot);
        slot->sequenceBlobLen = 0;
        return items;
    }
    // Makes a method known before it is reported.
    mPP* declare(const char* name, std::uint32_t flags, std::uint8_t type = 0, std::uint8_t subtype = 1) {
        const VXMethodLock lock;
        mPP* made = updateMethodHashMap(name, type, app->method.methodHashMapNode.load()->map, subtype);
        made->isEntryPointPtr = flags;
        return made;
    }

    vxTD* slot = nullptr;
};

}  // namespace vx::test
