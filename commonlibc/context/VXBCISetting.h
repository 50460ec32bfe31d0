// An instance's identity towards the collector, and the connect lines that announce it.
//
// Writer    Start-up of the context, then its control thread; message buffers by the thread that owns the
//           connection.
// Readers   Any thread of the instance: texts are shared texts, numbers keyword members or shared words.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "commonlibc/vxlb_text.h"

namespace vx {

inline constexpr std::size_t kConnectLineSize = 2048;
inline constexpr std::size_t kCriticalFilesSize = 4704;  // every keyword of the table fits
inline constexpr int kStatusTableSize = 600;             // HTTP statuses 0 to 599

// Agent type codes of agentTypeCode.
inline constexpr std::int32_t kAgentPython = 0, kAgentPhp = 1, kAgentDotnet = 2, kAgentJava = 3, kAgentGo = 4;

struct VXBCISetting_t {
    VXSharedText agentType;  // "Dotnet"; also sent as jvmType
    VXSharedText agentVersion;
    VXSharedText agentAppName;
    VXSharedText tierName, vxAppServerHost, appName;
    VXSharedText encodedTierName, encodedServerName, encodedAppName;  // "_" as "&#95;"
    VXSharedText vxcHost;
    std::atomic<char> btErrorArray[kStatusTableSize];  // 'T' ok, 'F' error, by HTTP status
    char machineName[8];                               // "LinuxEx"; kept, not sent
    char controlSourceIP[16];
    char controlMessage[kConnectLineSize], heartBeatMessage[kConnectLineSize], dataMessage[kConnectLineSize],
        autoSensorMessage[kConnectLineSize];
    std::int32_t controlMessageLen, heartBeatMessageLen, dataMessageLen,
        autoSensorMessageLen;  // at most 2047
    // Keyword members.
    std::int32_t appID, vxAppServerID, tierID;
    char fileBasedKeywordMode;          // '0' off
    std::int32_t FPMaxAllowedAgeInSec;  // default 300
    // Shared words.
    std::atomic<std::int32_t> vxcPort, wsPort, wssPort;  // TCP, WS, WSS
    std::atomic<std::int32_t> controlSourcePort;
    std::atomic<std::int32_t> agentTypeCode;
    std::atomic<std::int32_t> protoVer;
    std::atomic<std::int32_t> testRunIndex;  // testIdx; also Server's view of it
    std::atomic<std::int64_t> discoveryConnectionId;
    std::atomic<std::int32_t> tlsVerify;  // 1: the collector's certificate and name are checked
    std::atomic<std::int32_t> rawWsPath;  // 1: the WebSocket path has no "/" in front
    // Settings; written by the settings passes (start-up, then the control thread), read there.
    std::int32_t logRetentionDays, stackSize, autoScalingMode, saasMode, saasPort, envConfigured;
    std::uint8_t portGiven, protocolGiven, tierFixed, instanceAsTier;
    std::uint64_t envRows;                        // bit i: row i of the settings table came from a variable
    std::int64_t lastModifiedDate, prevFileSize;  // of the settings file, as last read
    VXSharedText attributes, tags;                // JSON
    VXSharedText tierAttr;
    VXSharedText tlsCaFile;                    // certificates to check with; unset: the system's
    VXSharedText agentCertFile, agentKeyFile;  // of the listener for agents; unset: proxy.cert of the home
    VXSharedText endPointPrefix, SaasHost, projectKey, authtoken;
    char criticalFiles[kCriticalFilesSize];  // control thread: keywords, each between commas
};

}  // namespace vx
