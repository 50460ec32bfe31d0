#include "commonlibc/proxyServer/vx_proxy_lws_certificate.h"

#include <libwebsockets.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/lws_context.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr const char* kCertificateName = "proxy.cert";
constexpr std::int64_t kMicros = 1000000;

bool isReadable(const char* path, char* reason, std::size_t size) {
    const VXFile file(std::fopen(path, "r"));
    if (file && std::fgetc(file.get()) != EOF) return true;
    std::snprintf(reason, size, "certificate file '%s' cannot be read: %s", path,
                  file ? "it is empty or no file" : std::strerror(errno));
    return false;
}

bool isExpired(lws_vhost* vhost) {
    lws_tls_cert_info_results until{};
    return lws_tls_vhost_cert_info(vhost, LWS_TLS_CERT_INFO_VALIDITY_TO, &until, 0) == 0 &&
           until.time < vxlb_now_us() / kMicros;
}

}  // namespace

void vxAgentCertificate(VXAgentCertificate& paths) {
    const VXBCISetting_t& setting = vxCurrent()->VXBCISetting;
    vxConfigPath(paths.certificate, sizeof(paths.certificate), kCertificateName);
    if (const char* named = setting.agentCertFile.get())
        vxlb_copy_text(paths.certificate, sizeof(paths.certificate), named);
    vxlb_copy_text(paths.key, sizeof(paths.key), setting.agentKeyFile.getOr(paths.certificate));
}

VXCertificateVerdict vxCheckAgentCertificate(const VXAgentCertificate& paths, char* reason,
                                             std::size_t size) {
    if (!isReadable(paths.certificate, reason, size) || !isReadable(paths.key, reason, size))
        return VXCertificateVerdict::kUnusable;
    static const lws_protocols kNone[] = {{"none", lws_callback_http_dummy, 0, 0, 0, nullptr, 0},
                                          {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
    lws_context_creation_info info{};
    info.port = CONTEXT_PORT_NO_LISTEN_SERVER;
    info.protocols = kNone;
    info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
    info.ssl_cert_filepath = paths.certificate;
    info.ssl_private_key_filepath = paths.key;
    info.ssl_private_key_password = "";  // nobody is there to be asked
    lws_vhost* vhost = nullptr;
    lws_context* context = vxMakeLwsContext(info, &vhost);
    if (!context) {
        std::snprintf(reason, size, "no certificate in '%s', or no key of it in '%s'", paths.certificate,
                      paths.key);
        return VXCertificateVerdict::kUnusable;
    }
    const bool expired = isExpired(vhost);
    vxEndLwsContext(context);
    if (!expired) return VXCertificateVerdict::kGood;
    std::snprintf(reason, size, "certificate '%s' has expired", paths.certificate);
    return VXCertificateVerdict::kExpired;
}

}  // namespace vx
