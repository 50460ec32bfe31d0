// Keyword parsers: keywords whose value needs more than a typed fill.
//
// All have the table's form (value, keyword, index). `value` is never null; a parser may take it apart in
// place. A refused value leaves the earlier one.
//
// Threads   Control thread; all on the current context. What they store is read by any thread.
#pragma once

namespace vx {

// Run and time base.
void setCurrentTR(char* value, const char* keyword, int index);     // asks for the metadata when it changes
void setZorEpochDiff(char* value, const char* keyword, int index);  // seconds, kept in milliseconds
void setvxFlowpathMasks(char* value, const char* keyword, int index);
void setqzWDir(char* value, const char* keyword, int index);  // traced, not kept

// Intervals of the reporting cycle, in milliseconds.
void setThreadSampleInterval(char* value, const char* keyword, int index);
void setThreadReportInterval(char* value, const char* keyword, int index);
void setVXMonitorInterval(char* value, const char* keyword, int index);  // below 1000: seconds

// Switches and limits.
void parseEnableCPUTime(char* value, const char* keyword, int index);
void setASData(char* value, const char* keyword, int index);             // the first character is the mode
void setVXVectorSeperator(char* value, const char* keyword, int index);  // the first character
void setEnableExceptionInSeqBlob(char* value, const char* keyword, int index);
void setEnableCaptureDataOutsideTxn(char* value, const char* keyword, int index);
void setvxAgentDebugLogging(char* value, const char* keyword, int index);
void checkDBBackendName(char* value, const char* keyword, int index);
void checkDBParam(char* value, const char* keyword, int index);
void checkgcmonitor(char* value, const char* keyword, int index);
void checkgoroutinemonitor(char* value, const char* keyword, int index);
void checkExceptionMsg(char* value, const char* keyword, int index);  // at least 1
void setDCHeartBeat(char* value, const char* keyword, int index);     // 1 to 3600 seconds

// Keep the text for the subsystem of that name.
#define VX_TEXT_PARSERS(X)             \
    X(setDBIPName)                     \
    X(setMonitorEnabledForID)          \
    X(setThresholdMatchCount)          \
    X(setThreadStackCompareDepth)      \
    X(setThreadReportDumpMode)         \
    X(setASEnableHotspotRecord)        \
    X(setClassWeight)                  \
    X(setAutoInstrSessionInterval)     \
    X(setRetainAutoInstrMethods)       \
    X(setDebugSessionMode)             \
    X(setMinStackDepthForDebugSession) \
    X(setEnableDDKeywd)                \
    X(setenableVXJTDataTransfer)       \
    X(setbciVXJTDataBufferSetting)     \
    X(setVXJTLogPath)                  \
    X(parseFormatIPResourceURL)
#define VX_DECLARE_PARSER(name) void name(char* value, const char* keyword, int index);
VX_TEXT_PARSERS(VX_DECLARE_PARSER)
#undef VX_DECLARE_PARSER

}  // namespace vx
