#include "commonlibc/VXKeywords.h"

#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCriticalFiles.h"
#include "commonlibc/VXDigestMonitor.h"
#include "commonlibc/VXFileBasedKeywords.h"
#include "commonlibc/VXInstrProfile.h"
#include "commonlibc/VXKeywordFill.h"
#include "commonlibc/VXKeywordParsers.h"
#include "commonlibc/VXSessionKeywords.h"
#include "commonlibc/backend/VXBackendMonitor.h"
#include "commonlibc/bt/VXBTMonitor.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/exception/VXExceptionSettings.h"
#include "commonlibc/http/VXHttpReqRespCaptureSettings.h"
#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

void fillMember(void* structure, int index, const char* value) {
    if (!value) return;
    const VXKeywordRow& row = keywordsMap[index];
    row.fill(static_cast<char*>(structure) + row.offset, value, row.length);
}

void fill_server_info(int index, const char* value) {
    fillMember(&vxCurrent()->Server, index, value);
}
void fill_VXSys_info(int index, const char* value) {
    fillMember(&vxCurrent()->VXSys, index, value);
}
void fill_vxAppLogStruct_info(int index, const char* value) {
    fillMember(&vxCurrent()->vxAppLogStruct, index, value);
}
void fill_VXBCISetting_info(int index, const char* value) {
    fillMember(&vxCurrent()->VXBCISetting, index, value);
}
void fill_VXAutoInstrumentation_info(int index, const char* value) {
    fillMember(&vxCurrent()->VXAutoInstrumentation, index, value);
}
void fill_VXFlowpathGenerator_info(int index, const char* value) {
    fillMember(&vxCurrent()->VXFlowpathGenerator, index, value);
}
void fill_VXInterfaceProcessor_info(int index, const char* value) {
    fillMember(&vxCurrent()->VXInterfaceProcessor, index, value);
}

// A parser that looks at the value only.
template <void (*parse)(const char*)>
void fromValue(char* value, const char* /*keyword*/, int /*index*/) {
    parse(value);
}

// The width a row writes must be the width of its member.
template <std::size_t memberSize>
consteval std::int32_t width(std::int32_t length) {
    if (static_cast<std::size_t>(length) != memberSize) throw "the row's width is not the member's";
    return length;
}

}  // namespace

#define VX_TYPED(structure, setter, member, length, fill)                                                  \
    {                                                                                                      \
#member, offsetof(structure, member), width < sizeof(structure::member)>(length), nullptr, setter, \
            fill                                                                                           \
    }
#define VX_MEMBER_Server(member, length, fill) VX_TYPED(Server_t, fill_server_info, member, length, fill)
#define VX_MEMBER_VXSys(member, length, fill) VX_TYPED(VXSys_t, fill_VXSys_info, member, length, fill)
#define VX_MEMBER_vxAppLogStruct(member, length, fill) \
    VX_TYPED(vxAppLogStruct_t, fill_vxAppLogStruct_info, member, length, fill)
#define VX_MEMBER_VXBCISetting(member, length, fill) \
    VX_TYPED(VXBCISetting_t, fill_VXBCISetting_info, member, length, fill)
#define VX_MEMBER_VXAutoInstrumentation(member, length, fill) \
    VX_TYPED(VXAutoInstrumentation_t, fill_VXAutoInstrumentation_info, member, length, fill)
#define VX_MEMBER_VXFlowpathGenerator(member, length, fill) \
    VX_TYPED(VXFlowpathGenerator_t, fill_VXFlowpathGenerator_info, member, length, fill)
#define VX_MEMBER_VXInterfaceProcessor(member, length, fill) \
    VX_TYPED(VXInterfaceProcessor_t, fill_VXInterfaceProcessor_info, member, length, fill)

#define VX_INT(structure, member, length) VX_MEMBER_##structure(member, length, fill_int_data)
#define VX_LONG(structure, member, length) VX_MEMBER_##structure(member, length, fill_long_long_data)
#define VX_DOUBLE(structure, member, length) VX_MEMBER_##structure(member, length, fill_double_data)
#define VX_CHAR(structure, member, length) VX_MEMBER_##structure(member, length, fill_char_data)
#define VX_PARSED(name, parser) \
    { #name, -1, 0, parser, nullptr, nullptr }
#define VX_VALUE(name, parser) VX_PARSED(name, fromValue<parser>)
#define VX_FILE(name) VX_PARSED(name, setFileBasedKeywd)

constexpr VXKeywordRow keywordsMap[] = {
    // clang-format off
    VX_FILE(BTRuleConfig),  // 0
    VX_FILE(BTTConfig),  // 1
    VX_FILE(BTErrorRules),  // 2
    VX_CHAR(Server, status, 64),
    VX_LONG(Server, TimeStampDiff, 8),
    VX_CHAR(Server, fpVersionID, 10),
    VX_FILE(vxExceptionMonFile),  // 6
    VX_FILE(vxMethodMonFile),  // 7
    VX_INT(Server, numInstrProfile, 4),
    VX_CHAR(Server, InstrTraceLevel, 1),
    VX_FILE(vxBackendNamingRulesFile),  // 10
    VX_INT(Server, setthresholdTime, 4),
    VX_INT(VXSys, enableForcedFPChain, 4),
    VX_FILE(VXEntryPointsFile),  // 13
    VX_INT(VXSys, enableBTMonitorTrace, 4),
    VX_INT(VXSys, captureExceptionTraceLevel, 4),
    VX_INT(VXSys, vxMethodMonTraceLevel, 4),
    VX_INT(VXSys, enableBackendMonTrace, 4),
    VX_INT(VXSys, enableThreadMonTraceLevel, 4),
    VX_INT(VXSys, ControlThreadTraceLevel, 4),
    VX_INT(VXSys, AgentTraceLevel, 4),  // 20
    VX_LONG(VXSys, BCITraceMaxSize, 8),
    VX_INT(VXSys, bciInstrSessionPct, 4),
    VX_INT(VXSys, enableFPTrace, 4),
    VX_LONG(VXSys, bciMaxNonServiceMethodsPerFP, 8),
    VX_INT(VXSys, enableIPResourceURL, 4),
    VX_INT(VXSys, hashMapClearTime, 4),
    VX_INT(VXSys, vxEnableTxHotspot, 4),
    VX_INT(VXSys, vxHelperDepth, 4),
    VX_INT(VXSys, vxHotspotThreadLimit, 4),
    VX_INT(VXSys, captureMethodForAllFP, 2),  // 30
    VX_INT(VXSys, vxEnableDebugMode, 1),
    VX_INT(VXSys, maxHttpBodySize, 4),
    VX_INT(VXSys, BTRuleOverridePolicy, 4),
    VX_INT(VXSys, bciDataBufferMaxSize, 4),
    VX_INT(VXSys, bciDataBufferMaxCount, 4),
    VX_INT(VXSys, ASDataBufferSize, 4),
    VX_INT(VXSys, ASDataBufferMaxCount, 4),
    VX_INT(VXSys, ASDataBufferMinCount, 4),
    VX_LONG(VXSys, vxcHeartBeatThreshold, 8),
    VX_INT(VXSys, enableProcessNotificationPhase, 4),  // 40
    VX_INT(VXSys, AgentHSTraceLevel, 4),
    VX_INT(VXSys, AgentADTraceLevel, 4),
    VX_INT(VXSys, AgentPCTraceLevel, 4),
    VX_INT(VXSys, enableUpdateLogMsgForNF, 4),
    VX_INT(VXSys, AgentEXTraceLevel, 4),
    VX_INT(VXSys, enableCallBackException, 4),
    VX_INT(VXSys, vxAgentDebugSession, 1),
    VX_INT(VXInterfaceProcessor, interfaceTraceLevel, 4),
    VX_INT(VXBCISetting, appID, 4),
    VX_INT(VXBCISetting, vxAppServerID, 4),  // 50
    VX_INT(VXBCISetting, tierID, 4),
    VX_CHAR(VXBCISetting, fileBasedKeywordMode, 1),
    VX_INT(VXBCISetting, FPMaxAllowedAgeInSec, 4),
    VX_INT(VXFlowpathGenerator, maxCharInSeqBlob, 4),
    VX_PARSED(instrProfile, setInstProfile),  // 55
    VX_PARSED(lmd, setInstProfile),  // 56
    VX_PARSED(size, setInstProfile),  // 57
    VX_INT(VXAutoInstrumentation, autoInstrMapSize, 4),
    VX_INT(VXAutoInstrumentation, autoInstrTraceLevel, 4),
    VX_INT(VXAutoInstrumentation, autoInstrMaxAvgDuration, 4),  // 60
    VX_DOUBLE(VXAutoInstrumentation, autoDeInstrPct, 8),
    VX_INT(VXAutoInstrumentation, autoInstrSampleInterval, 4),
    VX_FILE(vxHttpHdrCaptureFileList),  // 63
    VX_DOUBLE(VXAutoInstrumentation, autoInstrPct, 8),
    VX_INT(VXAutoInstrumentation, autoInstrSampleThreshold, 4),
    VX_LONG(vxAppLogStruct, VXJTFlushInterval, 8),
    VX_FILE(HTTPStatsCondCfg),
    VX_FILE(VXHTTPRepHdrCfgListFullFp),
    VX_FILE(VXHTTPReqHdrCfgListL1Fp),
    VX_FILE(VXAppLogFile),  // 70
    VX_FILE(vxBackendMonFile),
    VX_FILE(generateExceptionConfFile),
    VX_FILE(zorKWURLFile),
    VX_FILE(VXInterfaceFile),
    VX_FILE(vxILRewritterFile),  // 75
    VX_FILE(vxModuleFile),  // 76
    VX_FILE(vxProcessesFile),  // 77
    VX_FILE(vxPoolFile),  // 78
    VX_FILE(saveConfigFiles),
    VX_PARSED(vxFlowpathMasks, setvxFlowpathMasks),  // 80
    VX_PARSED(testIdx, setCurrentTR),
    VX_PARSED(zorEpochDiff, setZorEpochDiff),
    VX_PARSED(enableCpuTime, parseEnableCPUTime),
    VX_PARSED(qzWDir, setqzWDir),
    VX_VALUE(appName, setAppName),
    VX_PARSED(DBIPName, setDBIPName),
    VX_PARSED(ASSampleInterval, setThreadSampleInterval),
    VX_PARSED(ASReportInterval, setThreadReportInterval),
    VX_VALUE(enableBTMonitor, parseBTMonitorKeyword),
    VX_FILE(vxCriticalFileList),  // 90
    VX_VALUE(maxBTCount, parseMaxBTCount),
    VX_VALUE(maxIPCount, parseMaxIPCount),
    VX_VALUE(doNotDiscardFlowPaths, parseDoNotDiscardVal),
    VX_PARSED(collectASData, setASData),
    VX_FILE(blackListForDebugSession),  // 95
    VX_PARSED(vxVectorSeparator, setVXVectorSeperator),
    VX_VALUE(enableBTMonitorError, parseBTMonitorErrorLevel),
    VX_VALUE(enableBackendMonitor, setBackendMonitorEnabled),
    VX_PARSED(genNewMonRecord, setMonitorEnabledForID),
    VX_VALUE(BTAggDataArraySize, parseBTAggDataArraySize),  // 100
    VX_VALUE(tierName, setTierName),
    VX_VALUE(vxAppServerHost, setAppServerName_VXC),
    VX_PARSED(hdrListForValueAsId, sethdrListForValueAsId),
    VX_PARSED(ASThresholdMatchCount, setThresholdMatchCount),
    VX_PARSED(ASStackComparingDepth, setThreadStackCompareDepth),
    VX_PARSED(vxMonitorInterval, setVXMonitorInterval),
    VX_PARSED(ASReportDumpMode, setThreadReportDumpMode),
    VX_PARSED(ASEnableHotspotRecord, setASEnableHotspotRecord),
    VX_PARSED(enableVXSession, setEnableVXSession),
    VX_PARSED(KWCookie, setKWCookie),  // 110
    VX_PARSED(correlationIDHeader, setCorrelationIDHeader),
    VX_FILE(vxDynamicDiagnosticsConfFile),  // 112
    VX_PARSED(captureHTTPReqFullFp, setHttpReqRespCaptureSettings),
    VX_PARSED(captureHTTPRespFullFp, setHttpReqRespCaptureSettings),
    VX_PARSED(autoInstrClassWeight, setClassWeight),
    VX_PARSED(autoInstrSessionDuration, setAutoInstrSessionInterval),
    VX_PARSED(autoInstrRetainChanges, setRetainAutoInstrMethods),
    VX_PARSED(enableAutoInstrSession, setDebugSessionMode),
    VX_PARSED(MinStackDepthDebugSession, setMinStackDepthForDebugSession),
    VX_VALUE(backendErrorDetectionMode, setBackendErrorDetectionMode),  // 120
    VX_VALUE(instrExceptions, setExceptionCaptureSettings),
    VX_VALUE(vxExceptionFilterList, parseExceptionFilteringList),
    VX_PARSED(enableExceptionInSeqBlob, setEnableExceptionInSeqBlob),
    VX_PARSED(enableDDAI, setEnableDDKeywd),
    VX_PARSED(enableDBBackendName, checkDBBackendName),
    VX_PARSED(enableVXJTDataTransfer, setenableVXJTDataTransfer),
    VX_PARSED(bciVXJTDataBufferSetting, setbciVXJTDataBufferSetting),
    VX_PARSED(VXJTLogPath, setVXJTLogPath),
    VX_PARSED(formatIPResourceURL, parseFormatIPResourceURL),
    VX_VALUE(tDigestPercentileBT, setDigestPercentileBT),  // 130
    VX_VALUE(tDigestPercentileIP, setDigestPercentileIP),
    VX_PARSED(vxAgentDebugLogging, setvxAgentDebugLogging),
    VX_PARSED(enableCaptureDataOutsideTxn, setEnableCaptureDataOutsideTxn),
    VX_PARSED(enableOTELStandard, setpropheadcheck),
    VX_PARSED(enableDBQueryParamValues, checkDBParam),
    VX_PARSED(enableGCMonitor, checkgcmonitor),
    VX_PARSED(enableGoroutineMonitor, checkgoroutinemonitor),
    VX_PARSED(maxExceptionMessageLength, checkExceptionMsg),
    VX_PARSED(enableDCHeartBeat, setDCHeartBeat),
    // clang-format on
};

namespace {

consteval int rowOf(std::string_view name) {
    int index = 0;
    for (const VXKeywordRow& row : keywordsMap) {
        if (name == row.name) return index;
        ++index;
    }
    return -1;
}
consteval bool namesAreUnique() {
    int index = 0;
    for (const VXKeywordRow& row : keywordsMap)
        if (!*row.name || rowOf(row.name) != index++) return false;
    return true;
}
// Keywords that other units tell apart by index.
struct SettledIndex {
    std::string_view name;
    int index;
};
constexpr SettledIndex kSettled[] = {
    {"BTRuleConfig", 0},
    {"BTTConfig", 1},
    {"BTErrorRules", 2},
    {"vxExceptionMonFile", 6},
    {"vxMethodMonFile", 7},
    {"vxBackendNamingRulesFile", 10},
    {"VXEntryPointsFile", 13},
    {"instrProfile", 55},
    {"lmd", 56},
    {"size", 57},
    {"vxHttpHdrCaptureFileList", 63},
    {"vxILRewritterFile", 75},
    {"vxModuleFile", 76},
    {"vxProcessesFile", 77},
    {"vxPoolFile", 78},
    {"vxCriticalFileList", 90},
    {"blackListForDebugSession", 95},
    {"vxDynamicDiagnosticsConfFile", 112},
};
consteval bool settledRowsStand() {
    for (const SettledIndex& settled : kSettled)
        if (rowOf(settled.name) != settled.index) return false;
    return true;
}
static_assert(std::size(keywordsMap) == kKeywordRows, "one row for each keyword");
static_assert(namesAreUnique(), "no two rows of one name, none without");
static_assert(settledRowsStand(), "a keyword known by its index has moved");

// What one run may set and the next must not inherit, as a start line would write it.
struct KeywordDefault {
    int index;
    const char* value;

    consteval KeywordDefault(std::string_view name, const char* text) : index(rowOf(name)), value(text) {
        if (index < 0) throw "no such keyword";
    }
};
constexpr KeywordDefault kDefaults[] = {
    {"fpVersionID", "1.0"},
    {"numInstrProfile", "0"},
    {"setthresholdTime", "0"},
    {"enableForcedFPChain", "0"},
    {"bciInstrSessionPct", "0"},
    {"bciMaxNonServiceMethodsPerFP", "2147483647"},
    {"enableIPResourceURL", "0"},
    {"hashMapClearTime", "1000"},
    {"vxEnableTxHotspot", "0"},
    {"vxHelperDepth", "2"},
    {"vxHotspotThreadLimit", "30"},
    {"captureMethodForAllFP", "0"},
    {"vxEnableDebugMode", "0"},
    {"maxHttpBodySize", "1024"},
    {"BTRuleOverridePolicy", "0"},
    {"bciDataBufferMaxSize", "102400"},
    {"bciDataBufferMaxCount", "1000"},
    {"ASDataBufferSize", "262144"},
    {"ASDataBufferMaxCount", "16"},
    {"ASDataBufferMinCount", "2"},
    {"vxcHeartBeatThreshold", "500000"},
    {"enableProcessNotificationPhase", "0"},
    {"enableUpdateLogMsgForNF", "0"},
    {"enableCallBackException", "0"},
    {"vxAgentDebugSession", "0"},
    {"fileBasedKeywordMode", "0"},
    {"FPMaxAllowedAgeInSec", "300"},
    {"enableCpuTime", "0"},
    {"enableExceptionInSeqBlob", "0"},
    {"enableCaptureDataOutsideTxn", "0"},
    {"enableDBQueryParamValues", "0"},
    {"enableGCMonitor", "0"},
    {"enableGoroutineMonitor", "0"},
    {"maxExceptionMessageLength", "1000"},
    {"enableDCHeartBeat", "300"},
    {"captureHTTPReqFullFp", "0%200%200%200"},
    {"captureHTTPRespFullFp", "0%200%200%200"},
    {"hdrListForValueAsId", ""},
    {"enableVXSession", "0%20%20%200%200%200%201800000"},
    {"KWCookie", "ZorKW"},
    {"correlationIDHeader", ""},
    {"enableOTELStandard", "0%200%200%200%200%200%200%200%200"},
};

void applyRow(int index, char* value, const char* keyword) {
    const VXKeywordRow& row = keywordsMap[index];
    if (row.parser) {
        row.parser(value, keyword, index);
    } else if (row.setter) {
        row.setter(index, value);
    }
}

}  // namespace

int NameToIndex(const char* keyword) {
    for (int index = 0; index < kKeywordRows; ++index)
        if (std::strcmp(keywordsMap[index].name, keyword) == 0) return index;
    return -1;
}

void vxApplyKeyword(int index, char* value, const char* keyword) {
    if (index < 0 || index >= kKeywordRows || !value) return;
    const VXKeywordRow& row = keywordsMap[index];
    if (row.setter)
        VX_TRACE(1, kControlThread, kInfo,
                 "idx=%d, keywordsMap[idx].name=%s,  keywordsMap[idx].offset=%d,  "
                 "keywordsMap[idx].length=%d ",
                 index, row.name, row.offset, row.length);
    applyRow(index, value, keyword);
}

void vxlb_init_all_keywords() {
    for (const KeywordDefault& given : kDefaults) {
        char value[64];
        vxlb_copy_text(value, sizeof(value), given.value);
        applyRow(given.index, value, keywordsMap[given.index].name);
    }
    setDefaultCriticalFile();
    setdefaultValuesForException();
}

void setdefaultValues() {
    vxlb_init_all_keywords();
}

}  // namespace vx
