#include "commonlibc/lws_context.h"

#include <cstring>
#include <mutex>

#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constinit std::mutex contextMutex;  // also of the set-up

void traceLog(int level, const char* line) {
    const auto length = static_cast<int>(std::strcspn(line, "\n"));
    if (level == LLL_ERR) {
        VX_TRACE(1, kControlThread, kError, "libwebsockets: %.*s", length, line);
    } else {
        VX_TRACE(2, kControlThread, kWarning, "libwebsockets: %.*s", length, line);
    }
}

lws_context* make(lws_context_creation_info& info, std::uint64_t options) {
    info.options = options | LWS_SERVER_OPTION_EXPLICIT_VHOSTS | LWS_SERVER_OPTION_DISABLE_IPV6;
    info.gid = static_cast<decltype(info.gid)>(-1);
    info.uid = static_cast<decltype(info.uid)>(-1);
    if (info.fd_limit_per_thread == 0) info.fd_limit_per_thread = kLwsDescriptors;
    return lws_create_context(&info);
}

// The context that stays. The mutex is held.
void setUpOnce() {
    static lws_context* first = nullptr;
    if (first) return;
    lws_set_log_level(LLL_ERR | LLL_WARN, traceLog);
    lws_context_creation_info info{};
    info.port = CONTEXT_PORT_NO_LISTEN;
    first = make(info, LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT);
}

}  // namespace

lws_context* vxMakeLwsContext(lws_context_creation_info info, lws_vhost** vhost) {
    const std::lock_guard lock(contextMutex);
    setUpOnce();
    const std::uint64_t vhostOptions = info.options | LWS_SERVER_OPTION_DISABLE_IPV6;
    lws_context* context = make(info, 0);
    if (!context) return nullptr;
    info.options = vhostOptions;
    *vhost = lws_create_vhost(context, &info);
    if (*vhost) return context;
    lws_context_destroy(context);
    return nullptr;
}

void vxEndLwsContext(lws_context* context) {
    if (!context) return;
    const std::lock_guard lock(contextMutex);
    lws_context_destroy(context);
}

}  // namespace vx
