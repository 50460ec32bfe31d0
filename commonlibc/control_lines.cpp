#include "commonlibc/control_lines.h"

#include "commonlibc/Server.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_buffer.h"
#include "commonlibc/control_reply.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

// 0, or the verdict on a late reply that was refused.
int handleLine(vxApplication& app, char* line) {
    if (!app.Server.replyReceived && isConnectReply(line)) {
        app.control.lateVerdict = handleConnectReply(line);
        if (app.control.lateVerdict != kReplyGoOn) return app.control.lateVerdict;
    }
    handleReceivedClientMessageFromVXCollector(line);
    return 0;
}

}  // namespace

void processControlConnectionMessage(ctrlBufInfo_t* info) {
    vxApplication& app = *vxCurrent();
    while (const char* line = takeControlLine(info)) {
        char* own = vxlb_strdup(line);  // its handler may fill the buffer again
        const int verdict = own ? handleLine(app, own) : 0;
        VXLB_FREE(own, "text copy", -1);
        if (verdict != 0) return;
    }
    makeControlRoom(info);
}

}  // namespace vx
