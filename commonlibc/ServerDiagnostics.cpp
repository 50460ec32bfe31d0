#include "commonlibc/ServerDiagnostics.h"

#include <algorithm>
#include <cstring>

#include "commonlibc/VXAgentLine.h"
#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_outbox.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

// Record 0 stands empty from its process's end until another one registers.
void relayToFirst(const vxApplication& app, const char* line) {
    const bool any = app.identity.numProcess.load(std::memory_order_acquire) > 0;
    processInfo_t* first = any ? processAt(app, 0) : nullptr;
    if (first && vxHasControl(*first))
        vxRelayLine(*first, line);
    else
        VX_TRACE(1, kControlThread, kWarning, "The first agent process is not there to take '%s'", line);
}

// The number behind "id=" (case ignored), else behind the first semicolon; 0 without one.
std::int32_t connectionIdOf(const char* line) {
    if (const char* id = strcasestr(line, "id=")) return keywordInt(id + 3);
    const char* semicolon = std::strchr(line, ';');
    return semicolon ? keywordInt(semicolon + 1) : 0;
}

}  // namespace

void handleThreadDumpRequest(char* line) {
    relayToFirst(*vxCurrent(), line);
}

void handleDiscoveryRequest(char* line) {
    vxApplication& app = *vxCurrent();
    const std::int32_t id = connectionIdOf(line);
    app.VXBCISetting.discoveryConnectionId = id;
    if (id < 1) {
        VX_TRACE(1, kControlThread, kError, "Wrong connection id is received for auto discovery: %s", line);
        return;
    }
    relayToFirst(app, line);
}

void sendThreadDataToVXC(const char* logPrefix, const char* message, const char* logDetail,
                         std::int32_t maxLen) {
    for (const char* log : {logPrefix, logDetail})
        if (log) VX_TRACE(1, kControlThread, kError, "%s", log);
    if (!message || maxLen < 2) return;
    const std::size_t length = std::min(std::strlen(message), static_cast<std::size_t>(maxLen) - 1);
    vxOutboxPut(*vxCurrent(), message, length);
}

}  // namespace vx
