// The line with which an agent's connection announces itself: key=value fields separated by ";".
//
//     appName=shop;vxAppServerHost=host7;tierName=Web;pid=4711;agentName=nginx;agentType=Dotnet; \n
//
// The order of the fields is free and unknown keys are passed over. A field is split at its first "=", so a
// value may hold more of them; keys are compared with their case; of a repeated key the last counts.
//
// Limits    128 fields; a text is cut at its member's width minus 1, a number at its type's bounds.
// Threads   Any; no state.
#pragma once

#include <cstdint>

namespace vx {

struct kwLocalStruct {
    char appName[1024], vxAppServerHost[1024], tierName[1024], bciVersion[1024], vxHome[1024], hostName[1024],
        javaHome[1024], connDestination[1024], agentName[1024];
    char agentType[64];
    char VXCollectorIP[32], serverIp[32];
    char jvmType[64];
    char javaVersion[32], machineType[32];
    char attributes[1024], tags[1024];  // empty unless the line gives a value
    std::int64_t bciStartTime, pid, BCITimeStamp, lastConnectionTimeStamp, connDuration;
    std::int32_t requestType, appID, vxAppServerID, tierID, VXCollectorPort, testIdx;
    char isAgentLess;  // first character of the value
};

// Fills `record`, zeroed first, from the text behind the prefix; takes the text apart in place.
void vxParseRegistrationLine(char* fields, kwLocalStruct& record);

}  // namespace vx
