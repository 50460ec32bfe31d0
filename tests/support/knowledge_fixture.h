// Fixture: a context whose business transactions, methods and monitors stand as after a start, with a data
// channel whose records can be read. Everything is given back at the end.
#pragma once

#include <set>
#include <string>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXDigestMonitor.h"
#include "commonlibc/VXMethodManager.h"
#include "commonlibc/VXMonitorModel.h"
#include "commonlibc/backend/VXBackendMonitor.h"
#include "commonlibc/exception/VXExceptionNames.h"
#include "commonlibc/exception/VXExceptionSettings.h"
#include "commonlibc/mm/VXExceptionMonitor.h"
#include "commonlibc/mm/VXMethodMonitor.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_config.h"
#include "commonlibc/vxbt/vxbt_global_rule.h"
#include "commonlibc/vxbt/vxbt_rule_parser.h"
#include "commonlibc/vxbt/vxbt_thresholds.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_utiles.h"
#include "tests/support/app_fixture.h"
#include "tests/support/dumped_records.h"

namespace vx::test {

template <class T>
std::set<T*> valuesOf(VXMap* map) {
    std::set<T*> values;
    vxlb_map_each(
        map,
        [](const char*, void* value, void* all) {
            static_cast<std::set<T*>*>(all)->insert(static_cast<T*>(value));
            return true;
        },
        &values);
    return values;
}

inline void freeMethodTable(vxApplication& app) {
    VXMethodState_t& method = app.method;
    vxAggFree(method.backendArr);
    vxAggFree(method.methodArr);
    methodHashMapNode_t* table = method.methodHashMapNode.exchange(nullptr);
    if (!table) return;
    for (mPP* record : valuesOf<mPP>(table->map)) {
        for (char* text : {record->methodName, record->moduleName, record->calloutText, record->returnType,
                           record->arguments})
            VXLB_FREE(text, "text copy", -1);
        setSharedText(app.retired, record->aliasMethodName, nullptr);
        VXLB_FREE(record, "methodPropProperties", -1);
    }
    VXLB_FREE(table, "methodHashMapNode", -1);
}

// Business transactions, methods and monitors of the current context, as after a start.
inline void makeKnowledge() {
    VXBCISettingInit();
    VXBTConfigModelInit();
    VXBackendMonitorInit();
    VXMethodMonitorInit();
    VXExceptionMonitorInit();
    vxDigestInit();
}
inline void freeKnowledge(vxApplication& app) {
    vxFreeBtStore();
    vxFreeExceptionNames();
    setdefaultValuesForException();
    freeMethodTable(app);
    vxAggFree(app.exceptionMonitor.exceptionArr);
}

class KnowledgeFixture : public AppFixture {
protected:
    void SetUp() override {
        AppFixture::SetUp();
        makeKnowledge();
        openDumping(*app);
    }
    void TearDown() override {
        closeDumping(*app);
        vxFreeChain(app->autoSensor.chain);
        freeKnowledge(*app);
        AppFixture::TearDown();
    }

    // Puts the global rule of a line in place.
    void setRule(const std::string& text) {
        char line[kRuleLineSize];
        vxlb_copy_text(line, sizeof(line), text.c_str());
        parse_global_rule(line);
    }
    // Brings the rules and thresholds of a text into force.
    void rulesAre(const std::string& text) { vxbt_read_rule_file(text.c_str(), VXRuleSource::kText); }
    void thresholdsAre(const std::string& text) {
        vxbt_read_threshold_file(text.c_str(), VXRuleSource::kText);
    }
    // The BT of a name, as rule execution asks for it.
    BTObject* btOf(const std::string& name) {
        char buffer[kBtNameBufferSize];
        vxlb_copy_text(buffer, sizeof(buffer), name.c_str());
        return updateBTObject(buffer);
    }
};

}  // namespace vx::test
