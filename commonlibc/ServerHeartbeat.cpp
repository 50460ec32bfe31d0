#include "commonlibc/ServerHeartbeat.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "commonlibc/VXAgentLine.h"
#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr int kMaxFields = 10;
constexpr int kMinFields = 3;
constexpr std::int64_t kMsPerHour = 3600000, kMsPerMinute = 60000, kMsPerSecond = 1000;

struct StateRow {
    const char* key;
    std::atomic<std::int32_t> VXSys_t::*state;
    const char* closedText;
};
constexpr StateRow kStates[] = {
    {"dataConnState", &VXSys_t::dataConnState, "Data connection is closed from VXC."},
    {"AutosensorConnState", &VXSys_t::autosensorConnState,
     "AutoSensor connection is closed from VXC.Going to closing auto sensor connection."},
};

void takeState(VXSys_t& sys, char* field) {
    char key[64];
    const char* value = split_key_value(field, key, sizeof(key));
    if (!value) return;
    for (const StateRow& row : kStates) {
        if (std::strcmp(key, row.key) != 0) continue;
        const std::int32_t state = keywordInt(value);
        (sys.*row.state).store(state);
        if (state == 0) VX_TRACE(1, kControlThread, kInfo, "%s", row.closedText);
    }
}

void traceHeartbeat(const vxApplication& app) {
    const std::int64_t now = vxlb_now_ms();
    const std::int64_t elapsed = std::max<std::int64_t>(now - app.identity.startTimeMs, 0);
    char text[96];
    std::snprintf(text, sizeof(text), "Hour:%lld Min:%lld sec:%lld",
                  static_cast<long long>(elapsed / kMsPerHour),
                  static_cast<long long>(elapsed % kMsPerHour / kMsPerMinute),
                  static_cast<long long>(elapsed % kMsPerMinute / kMsPerSecond));
    VX_TRACE(2, kControlThread, kInfo,
             "Heartbeat set for '%s:%s:%s' is :%lld, Process count = %d Time Elapsed- '%s'", getTierName(),
             getAppServerName(), getAppName(), static_cast<long long>(now), app.identity.numProcess.load(),
             text);
}

}  // namespace

void handleHeartbeat(char* line) {
    traceHeartbeat(*vxCurrent());
    const int reached = vxRelayToAll(line);
    VX_TRACE(2, kControlThread, kInfo, "Heartbeat Sent Successfully to '%d' active processes.", reached);
    takeConnectionStates(line);
}

bool takeConnectionStates(char* line) {
    char* fields[kMaxFields];
    const int count = vxlb_get_tokens_with_multi_delimiter(line, fields, ";", kMaxFields);
    if (count < kMinFields) return false;
    for (int i = 0; i < count; ++i) takeState(vxCurrent()->VXSys, fields[i]);
    return true;
}

}  // namespace vx
