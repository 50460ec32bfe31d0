// Calls upward: the one visible table of function pointers from lower floors to upper ones.
//
// A lower floor never includes an upper one; where it must call upward (a data thread that flushes
// flowpaths, a decoder whose handler is not there) it goes through this table, which start-up fills in one
// place (vxFillUpcalls in vx_agent). An empty entry traces its name once at level 1 and answers the zero
// value of its type.
//
// Threads   Filled before other threads start; read by any.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "commonlibc/context/vx_application.h"

namespace vx {

// X(name, type of function). Order is free.
// clang-format off
#define VX_UPCALL_LIST(X)                                                                               \
    /* from the general settings */                                                                     \
    X(controlSockBufInit, void(vxApplication & app))                                                    \
    X(initVXHttpReqRespCaptureSettings, void(int ofResponse))                                           \
    /* from the data channel */                                                                         \
    X(dumpFpFromBusyList, void())                                                                       \
    X(dumpNdDataOverRecord, void())                                                                     \
    X(setdefaultValues, void())                                                                         \
    X(initVXDynamicSettings, void())                                                                    \
    X(ResetMonitorData, void())                                                                         \
    X(freeTagStructures, void())                                                                        \
    X(dropResetQueueOfInstance, void(vxApplication*))                                                   \
    X(clearBtMetaDataFlags, void())                                                                     \
    X(clearHeaderMetaDataFlags, void())                                                                 \
    X(replayMetaData, void())                                                                           \
    /* from the auto-sensor channel */                                                                  \
    X(markLongIdleTransactions, void())                                                                 \
    X(monitorCycle, void(VXMonitorPhase phase))                                                         \
    /* from business transactions, methods and monitors */                                              \
    X(resolveTransactionTag,                                                                            \
      void(vxTD * slot, const char* name, const char* value, std::int32_t btId, std::int32_t kind))     \
    /* from the engine and the decoder */                                                               \
    X(addMethodInHash, void(const char* methodName))                                                    \
    X(updateMethodInHash, void(const char* methodName, std::int64_t wallTime))                          \
    /* from the collector link */                                                                       \
    X(check_captureAppLog_thread, int())                                                                \
    X(VXThreadMonitorInit, void())                                                                      \
    X(freeTagHashLists, void())                                                                         \
    X(resetAppLogSettings, void())                                                                      \
    X(parseBackendRuleFile, void(char* text))                                                           \
    X(setblackListForDebugSession, void(char* text))                                                    \
    X(parseDynamicSettingsFile, void(char* text))                                                       \
    X(handleUploadDownload, void(char* line))                                                           \
    X(parseAutoInstrClientMsgAndSendResp, void(char* line))                                             \
    X(parseDDClientMsgAndSendResp, void(char* line))                                                    \
    X(HandleVexalineMessage, void(char* line))                                                          \
    X(SendMessageOnUDPSocket, void(const char* text))                                                   \
    X(freeUDPConnections, void(vxApplication * app))                                                    \
    /* from the agent side */                                                                           \
    X(initializeVXApplicationGlobal, void())
// clang-format on

enum class VXUpcallName : std::size_t {
#define VX_UPCALL_ENUM(name, ...) name,
    VX_UPCALL_LIST(VX_UPCALL_ENUM)
#undef VX_UPCALL_ENUM
        kCount
};

template <class Function>
using VXUpcallPointer = Function*;

struct VXUpcalls {
#define VX_UPCALL_MEMBER(name, ...) VXUpcallPointer<__VA_ARGS__> name = nullptr;
    VX_UPCALL_LIST(VX_UPCALL_MEMBER)
#undef VX_UPCALL_MEMBER
};
extern VXUpcalls vxUpcalls;

// Name of an entry, for traces and tests.
const char* vxUpcallText(VXUpcallName name);
// True when the entry of that name is empty.
bool vxUpcallEmpty(VXUpcallName name);
// Traces the name of an empty entry, once per process.
void vxUpcallMissing(VXUpcallName name);

template <class R, class... P, class... A>
R vxUpcall(R (*function)(P...), VXUpcallName name, A&&... arguments) {
    if (function) return function(static_cast<P>(arguments)...);
    vxUpcallMissing(name);
    return R();
}

}  // namespace vx

// VX_UPCALL(name, arguments...): calls the entry, or traces its name once.
#define VX_UPCALL(name, ...) \
    ::vx::vxUpcall(::vx::vxUpcalls.name, ::vx::VXUpcallName::name __VA_OPT__(, ) __VA_ARGS__)
