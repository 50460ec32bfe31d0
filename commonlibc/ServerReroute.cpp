#include "commonlibc/ServerReroute.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "commonlibc/ServerStart.h"
#include "commonlibc/ServerStop.h"
#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/VXSettingsRewrite.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr int kMaxFields = 10;
constexpr int kDefaultPort = 443;
constexpr int kTargetRecord = 1;  // of a cluster
constexpr const char* kNoChange = "ALL";

// What a line asks for; null texts and port 0: no change.
struct Target {
    const char *host = nullptr, *tier = nullptr, *server = nullptr, *instance = nullptr;
    int port = 0;
};

void takePort(Target& target, const char* value) {
    const std::int32_t port = keywordInt(value);
    if (checkVXCPort(port))
        target.port = port;
    else
        VX_TRACE(1, kControlThread, kError, "Port '%s' of a reroute is not valid, ignored", value);
}

void takeHost(Target& target, const char* value) {
    if (checkVXCHost(value))
        target.host = value;
    else
        VX_TRACE(1, kControlThread, kError, "Host '%s' of a reroute is not valid, ignored", value);
}

struct FieldRow {
    const char* key;
    void (*take)(Target& target, const char* value);
};
constexpr FieldRow kFieldRows[] = {
    {"vxcHost", takeHost},
    {"vxcPort", takePort},
    {"tier", [](Target& target, const char* value) { target.tier = value; }},
    {"server", [](Target& target, const char* value) { target.server = value; }},
    {"instance", [](Target& target, const char* value) { target.instance = value; }},
};

void takeField(Target& target, char* field) {
    char key[64];
    const char* value = split_key_value(field, key, sizeof(key));
    if (!value || !*value) return;
    if (std::strcmp(key, "clusterMode") == 0) vxCurrent()->collectors.clusterMode = keywordInt(value);
    if (strcasecmp(value, kNoChange) == 0) return;
    for (const FieldRow& row : kFieldRows)
        if (std::strcmp(key, row.key) == 0) row.take(target, value);
}

// The collector's side, and the record that the next connect goes to.
void takeCollector(vxApplication& app, const Target& target) {
    if (target.host) {
        resetVXCHostAndPort();
        setVXCHost(target.host);
    }
    if (target.port) setVXCPort(target.port);
    const int port = target.port ? target.port : target.host ? kDefaultPort : kLeavePort;
    if (port != kLeavePort) vxTakePort(port);
    if (app.collectors.clusterMode != 0) {
        setBackupVXC(target.host, port);
        vxSetCollectorProtocol(kTargetRecord, vxCollectorInUse().protocol, 0);
        return;
    }
    setPrimaryVXC(target.host, port);
    const VXGuard lock(app.collectors.mutex);
    app.collectors.activeVXCIndex = 0;
}

void rewriteSettings(const Target& target) {
    VXSettingsChange change{target.tier, target.server, target.host, target.port};
    if (target.host && !target.port) change.vxcPort = kDefaultPort;
    updateVXSettingFile(change);
}

}  // namespace

bool parseReRouteMessageAndUpdateClientInfo(char* line) {
    vxApplication& app = *vxCurrent();
    char* fields[kMaxFields];
    const int count = vxlb_get_tokens_with_multi_delimiter(line, fields, ";", kMaxFields);
    if (count <= 1) {
        VX_TRACE(1, kControlThread, kError, "Message not sent properly fron VXC. numFields = %d", count);
        return false;
    }
    Target target;
    for (int i = 1; i < count; ++i) takeField(target, fields[i]);
    if (target.tier) setTierName(target.tier);
    if (target.server) setAppServerName(target.server);
    if (target.instance) setAppName(target.instance);
    takeCollector(app, target);
    if (app.collectors.clusterMode == 0) rewriteSettings(target);
    return true;
}

void handleReroute(char* line) {
    vxApplication& app = *vxCurrent();
    VXControlState_t& control = app.control;
    char former[sizeof(control.connDestination)];
    std::snprintf(former, sizeof(former), "%s:%d", app.VXBCISetting.vxcHost.getOr(""),
                  app.VXBCISetting.vxcPort.load());
    if (!parseReRouteMessageAndUpdateClientInfo(line)) return;
    vxlb_copy_text(control.connDestination, sizeof(control.connDestination), former);
    control.requestType = kRequestReroute;
    control.connDuration = vxlb_steady_ms() - control.connectedAtMs;
    if (app.Server.instrumentationStarted) handleStoppingCaseAtStopInstrumentCase();
    app.Server.numRunning = 0;
    closeCurrentControlConnection();
    setAllFlagAndCountVars();
}

}  // namespace vx
