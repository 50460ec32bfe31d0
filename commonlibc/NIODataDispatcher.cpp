#include "commonlibc/NIODataDispatcher.h"

#include <algorithm>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr std::int32_t kDefaultSize = 262144, kDefaultMaxCount = 16, kDefaultMinCount = 2;
constexpr std::uint32_t kDropsPerLine = 10000;

constexpr int kChainGrown = 0, kNoMemory = 1, kNoMoreBuffers = 2;

VXBufferChain& currentChain() {
    return vxCurrent()->autoSensor.chain;
}

std::int32_t settingOr(const std::int32_t& setting, std::int32_t standard) {
    const std::int32_t value = vx_word_get(setting);
    return value < 1 ? standard : value;
}

bool runWanted(const vxApplication& app) {
    return app.Server.testRunRunning.load(std::memory_order_acquire) ||
           app.autoSensor.lastReport.load(std::memory_order_acquire);
}

// Adds one step of nodes behind the write list; dumpMutex held.
int growChain(vxApplication& app) {
    VXAutoSensorState_t& sensor = app.autoSensor;
    const std::int32_t most = settingOr(app.VXSys.ASDataBufferMaxCount, kDefaultMaxCount);
    const std::int32_t step = settingOr(app.VXSys.ASDataBufferMinCount, kDefaultMinCount);
    const std::int32_t wanted = std::min(step, most - sensor.curBuffers);
    if (wanted < 1) return kNoMoreBuffers;
    const VXGuard links(sensor.chain.listMutex);
    const std::int32_t added =
        vxExtendChain(sensor.chain, wanted, settingOr(app.VXSys.ASDataBufferSize, kDefaultSize));
    sensor.curBuffers += added;
    return added == wanted ? kChainGrown : kNoMemory;
}

// Room was missing: one more step of nodes, and a second attempt.
int appendToGrown(vxApplication& app, const char* data, std::int64_t length) {
    switch (growChain(app)) {
        case kNoMemory:
            VX_TRACE(1, kControlThread, kError, "Error in buff_list_init_as");
            return kChainDropped;
        case kNoMoreBuffers:
            VX_TRACE(2, kControlThread, kInfo,
                     "Auto sensor buffers are full. Max buffers: %d used buffers: %d",
                     settingOr(app.VXSys.ASDataBufferMaxCount, kDefaultMaxCount), app.autoSensor.curBuffers);
            return kChainDropped;
        default:
            return addDataInASSendBuffer(data, length);
    }
}

}  // namespace

int dumpASData(const char* data, std::int64_t length) {
    if (vxTryDumpAS(data, length) == 0) return 0;
    vxRefuseAS(data, length);
    return 1;
}

int vxTryDumpAS(const char* data, std::int64_t length) {
    vxApplication* app = vxCurrent();
    if (!app || !data || length <= 0 || !runWanted(*app)) return kChainDropped;
    VXBufferChain& chain = app->autoSensor.chain;
    const VXGuard lock(chain.dumpMutex);
    int code = addDataInASSendBuffer(data, length);
    if (code < 0 && code != kChainCut) code = appendToGrown(*app, data, length);
    if (code == 0) vxCountAccepted(chain, data, length);
    return code;
}

void vxRefuseAS(const char* data, std::int64_t length) {
    vxApplication* app = vxCurrent();
    if (!app || !data || length <= 0 || !runWanted(*app)) return;
    vxCountRefused(app->autoSensor.chain, data, length);
    const std::uint32_t drops = app->VXSys.dataDropCount.fetch_add(1, std::memory_order_relaxed) + 1;
    if (drops % kDropsPerLine == 0)
        VX_TRACE(1, kControlThread, kWarning,
                 "VXDataDispatcher - dumpData(): Warning - No space left in buffer orthread is not "
                 "initialized for sending data");
}

int addDataInASSendBuffer(const char* data, std::int64_t length) {
    return vxAppendToChain(currentChain(), data, length);
}

int buff_list_init_as() {
    vxApplication& app = *vxCurrent();
    const VXGuard lock(app.autoSensor.chain.dumpMutex);
    return app.autoSensor.chain.VXBCIAgentBB.load(std::memory_order_acquire) ? kChainGrown : growChain(app);
}

void moveToASReadList() {
    moveToReadList(currentChain());
}

void moveToASWriteList() {
    moveToWriteList(currentChain());
}

void moveCommonPartialToReadList() {
    movePartialToReadList(currentChain());
}

}  // namespace vx
