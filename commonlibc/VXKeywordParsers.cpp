#include "commonlibc/VXKeywordParsers.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/VXKeywordText.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/flowpath/VXFlowpathIdentity.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::int32_t kHeartBeatMin = 1, kHeartBeatMax = 3600;  // seconds
constexpr std::size_t kUdpKeywordSize = 256;
constexpr std::int64_t kMsPerSecond = 1000;

VXSys_t& sysOfCurrent() {
    return vxCurrent()->VXSys;
}

// UDP agents have no control connection: a change that concerns them goes out by datagram.
void tellUDPAgents(const char* keyword, const char* value) {
    const vxApplication& app = *vxCurrent();
    if (!app.identity.isUDP && !app.udp.attached.load(std::memory_order_relaxed)) return;
    char text[kUdpKeywordSize];
    VXWriter(text, sizeof(text)).text(keyword).put('=').text(value).terminate();
    VX_UPCALL(SendMessageOnUDPSocket, text);
}

std::int32_t exactlyOne(const char* value) {
    return keywordInt(value) == 1 ? 1 : 0;
}

}  // namespace

void setCurrentTR(char* value, const char* keyword, int /*index*/) {
    vxApplication& app = *vxCurrent();
    const std::int32_t testRun = keywordInt(value);
    const std::int32_t former = app.VXBCISetting.testRunIndex.exchange(testRun);
    app.Server.doNotDumpMetaData = testRun == former ? 0 : 1;
    if (testRun == former) app.Server.sameTestRun = 1;
    tellUDPAgents(keyword, value);
}

void setZorEpochDiff(char* value, const char* /*keyword*/, int /*index*/) {
    Server_t& server = vxCurrent()->Server;
    constexpr std::int64_t limit = std::numeric_limits<std::int64_t>::max() / kMsPerSecond;
    const std::int64_t base = std::clamp(keywordLong(value), -limit, limit) * kMsPerSecond;
    server.zorEpochDiff = base;
    server.originalZorEpochDiff = base;
    server.epochDiffGiven = base == 0 ? 0 : 1;
}

void setvxFlowpathMasks(char* value, const char* /*keyword*/, int /*index*/) {
    parse_flowpath_mask(value);
}

void setqzWDir(char* value, const char* /*keyword*/, int /*index*/) {
    VX_TRACE(2, kControlThread, kInfo, "qzWDir = '%s'", value);
}

void setThreadSampleInterval(char* value, const char* /*keyword*/, int /*index*/) {
    vx_word_set(sysOfCurrent().ASSampleInterval, keywordLong(value));
}

void setThreadReportInterval(char* value, const char* /*keyword*/, int /*index*/) {
    VXSys_t& sys = sysOfCurrent();
    const std::int64_t interval = keywordLong(value);
    if (interval < 0) {
        VX_TRACE(1, kThreadMon, kWarning,
                 "Not setting thread report interval as value is negative. Received Value = %s. Previous "
                 "value will be used. Prev value = %d",
                 value, static_cast<int>(vx_word_get(sys.ASReportInterval)));
        return;
    }
    if (interval <= vx_word_get(sys.ASSampleInterval))
        VX_TRACE(1, kThreadMon, kWarning,
                 "Thread report interval is not above sample interval, it will be set to 100 times of sample "
                 "interval. Received Value = %s",
                 value);
    vx_word_set(sys.ASReportInterval, interval);
}

void setVXMonitorInterval(char* value, const char* /*keyword*/, int /*index*/) {
    VXSys_t& sys = sysOfCurrent();
    std::int64_t interval = keywordLong(value);
    if (interval < 1) {  // the divisor of all rates: 0 is refused with the negative ones
        VX_TRACE(1, kThreadMon, kWarning,
                 "VXMonitorSettings: Not setting Monitoring Report Interval value as value is invalid. "
                 "strKeywordValue = %s.Previous Value will be used. Value = %ld",
                 value, static_cast<long>(vx_word_get(sys.vxMonitorInterval)));
        return;
    }
    if (interval < kMsPerSecond) interval *= kMsPerSecond;
    interval = std::min<std::int64_t>(interval, std::numeric_limits<std::int32_t>::max());
    vx_word_set(sys.vxMonitorInterval, interval);
    vx_word_set(sys.vxMonitorIntervalInSec, interval / kMsPerSecond);
    VX_TRACE(1, kThreadMon, kInfo, "Value of MonitorInterval : '%ld' ms and vxMonitorIntervalInSec : '%d'ses",
             static_cast<long>(interval), static_cast<int>(interval / kMsPerSecond));
}

void parseEnableCPUTime(char* value, const char* /*keyword*/, int /*index*/) {
    vx_word_set(sysOfCurrent().enableCpuTime, keywordInt(value));
}

void setASData(char* value, const char* /*keyword*/, int /*index*/) {
    if (*value) vx_word_set(vxCurrent()->keywords.asDataMode, *value);
}

void setVXVectorSeperator(char* value, const char* /*keyword*/, int /*index*/) {
    if (*value) vx_word_set(sysOfCurrent().vxVectorSeparator, *value);
}

void setEnableExceptionInSeqBlob(char* value, const char* /*keyword*/, int /*index*/) {
    vx_word_set(sysOfCurrent().enableExceptionInSeqBlob, keywordInt(value));
}

void setEnableCaptureDataOutsideTxn(char* value, const char* /*keyword*/, int /*index*/) {
    vx_word_set(sysOfCurrent().enableCaptureDataOutsideTxn, keywordInt(value));
}

void setvxAgentDebugLogging(char* value, const char* /*keyword*/, int /*index*/) {
    vx_word_set(sysOfCurrent().agentDebugLogging, keywordInt(value));
}

void checkDBBackendName(char* value, const char* keyword, int /*index*/) {
    vx_word_set(sysOfCurrent().enableDBBackendName, keywordInt(value));
    tellUDPAgents(keyword, value);
}

void checkDBParam(char* value, const char* /*keyword*/, int /*index*/) {
    vx_word_set(sysOfCurrent().enableDBQueryParamValues, exactlyOne(value));
}

void checkgcmonitor(char* value, const char* /*keyword*/, int /*index*/) {
    vx_word_set(sysOfCurrent().enableGCMonitor, exactlyOne(value));
}

void checkgoroutinemonitor(char* value, const char* /*keyword*/, int /*index*/) {
    vx_word_set(sysOfCurrent().enableGoroutineMonitor, exactlyOne(value));
}

void checkExceptionMsg(char* value, const char* keyword, int /*index*/) {
    const std::int32_t length = keywordInt(value);
    if (length < 1) {
        VX_TRACE(1, kControlThread, kWarning, "Value '%s' of keyword '%s' is refused, it must be above 0",
                 value, keyword);
        return;
    }
    vx_word_set(sysOfCurrent().maxExceptionMessageLength, length);
}

void setDCHeartBeat(char* value, const char* keyword, int /*index*/) {
    const std::int32_t seconds = keywordInt(value);
    if (seconds < kHeartBeatMin || seconds > kHeartBeatMax) {
        VX_TRACE(1, kControlThread, kWarning, "Value '%s' of keyword '%s' is refused, range is %d to %d",
                 value, keyword, kHeartBeatMin, kHeartBeatMax);
        return;
    }
    vx_word_set(sysOfCurrent().dataHeartbeatInterval, seconds);
}

#define VX_DEFINE_PARSER(name)                                   \
    void name(char* value, const char* /*keyword*/, int index) { \
        vxKeepKeywordText(index, value);                         \
    }
VX_TEXT_PARSERS(VX_DEFINE_PARSER)
#undef VX_DEFINE_PARSER

}  // namespace vx
