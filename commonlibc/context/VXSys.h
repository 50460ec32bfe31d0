// General settings of a context.
//
// Writer    Start-up defaults (VXSysInit), then the control thread: keyword members through
//           vx_word_set() as the keyword table's fill functions do, parsers by their own rule.
// Readers   Any thread; keyword members through vx_word_get().
// Guards    fpVersionID-like texts of 10 and 64 bytes are copied under the process's text mutex
//           (see VXSys unit); everything else is a shared word or set once at start-up.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "commonlibc/vxlb_text.h"

namespace vx {

inline constexpr std::size_t kProtocolsTextSize = 50;

struct VXSys_t {
    // Keyword members (plain words of the row's width).
    std::int32_t enableForcedFPChain, enableBTMonitorTrace, captureExceptionTraceLevel, vxMethodMonTraceLevel,
        enableBackendMonTrace, enableThreadMonTraceLevel;
    std::int32_t ControlThreadTraceLevel;  // 0 to 4
    std::int32_t AgentTraceLevel;
    std::int64_t BCITraceMaxSize;     // bytes per trace file
    std::int32_t bciInstrSessionPct;  // percent of flowpaths to capture
    std::int32_t enableFPTrace;
    std::int64_t bciMaxNonServiceMethodsPerFP;
    std::int32_t enableIPResourceURL, hashMapClearTime, vxEnableTxHotspot, vxHelperDepth,
        vxHotspotThreadLimit;
    std::int16_t captureMethodForAllFP;
    std::uint8_t vxEnableDebugMode;
    std::int32_t maxHttpBodySize, BTRuleOverridePolicy;
    std::int32_t bciDataBufferMaxSize;   // bytes per chunk
    std::int32_t bciDataBufferMaxCount;  // chunks
    std::int32_t ASDataBufferSize, ASDataBufferMaxCount, ASDataBufferMinCount;
    std::int64_t vxcHeartBeatThreshold;  // ms of silence that end the control connection
    std::int32_t enableProcessNotificationPhase, AgentHSTraceLevel, AgentADTraceLevel, AgentPCTraceLevel,
        enableUpdateLogMsgForNF, AgentEXTraceLevel, enableCallBackException;
    std::uint8_t vxAgentDebugSession;

    // Members with a parser of their own, or set by the settings file; also through vx_word_get/set.
    std::int32_t memoryTraceLevel;
    std::int32_t enableCpuTime;                                                      // CPU time mode
    std::int32_t agentDebugLogging;                                                  // setvxAgentDebugLogging
    std::int32_t enableDBQueryParamValues, enableGCMonitor, enableGoroutineMonitor;  // 0 or 1
    std::int32_t maxExceptionMessageLength;
    std::int32_t enableDBBackendName;
    std::int32_t enableExceptionInSeqBlob;
    std::int32_t enableVXSession, enableCaptureDataOutsideTxn;
    std::int64_t vxSessionIdleTimeOutSecs;  // 0: off
    std::int64_t maxFPCountInSession;       // 0: off
    std::int32_t maxIPCount;                // ceiling of named back-ends
    std::int32_t otelEnabled, otelGlobal;   // trace tail of the 2 record needs both
    std::int32_t correlationIDEnabled;      // the correlationIDHeader feature
    std::int32_t tagsEnabled;               // tags in 4 and 74 records
    std::int32_t sendTagRecords;            // 110 and 111 behind the 99 record; default 1
    std::int32_t vxVectorSeparator;         // one character
    std::int32_t instrumentMoveNext;
    std::int32_t instrumentSleepMs;
    std::int32_t dataHeartbeatInterval;                                  // seconds, 1 to 3600
    std::int64_t fileReadTimeout;                                        // microseconds
    std::int64_t ASReportInterval, ASSampleInterval, vxMonitorInterval;  // ms
    std::int32_t vxMonitorIntervalInSec;

    // Shared words.
    std::atomic<std::uint32_t> dataDropCount;  // records refused since the last start
    std::atomic<std::int32_t> dataConnState;   // 0: no data connection, or ordered closed
    std::atomic<std::int32_t> autosensorConnState;
    VXSharedText vxHomePath;
    VXSharedText sessionCookieName;  // "ZorKW" by default
    VXSharedText correlationIDHeader;
    VXSharedText vxBuild;  // build text, refreshed by setVxBuild()

    // Set once at start-up of the context (before its threads).
    std::uint8_t proxyMode;  // 0 in an instance unless the settings give it
    std::int32_t proxyConType;
    char proxyHost[256];  // agent-side proxy settings, unused in the service
    std::int32_t proxyPort;
    std::int64_t bciStartUpTime;                        // Unix ms
    char supportedProtocolsString[kProtocolsTextSize];  // control thread only after start-up
    std::int32_t processId;
};

}  // namespace vx
