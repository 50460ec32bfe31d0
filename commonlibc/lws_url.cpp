#include "commonlibc/lws_url.h"

#include <cstdio>
#include <cstring>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_mem.h"

namespace vx {

namespace {

constexpr std::size_t kPathSize = 1024;
constexpr const char* kHexDigits = "0123456789ABCDEF";

bool standsForItself(unsigned char byte) {
    return byte > ' ' && byte < 0x7F && byte != '"' && byte != '\'';
}

// `text` or, where there is none, what stands in for it.
const char* textOr(const VXSharedText& text, const char* otherwise) {
    const char* held = text.getOr("");
    return *held ? held : otherwise;
}

}  // namespace

char* setWebsocketUrl() {
    const VXBCISetting_t& setting = vxCurrent()->VXBCISetting;
    char plain[kPathSize];
    std::snprintf(plain, sizeof(plain), "%s/vx/%s/%s/%s?tierAttributes=%s&",
                  textOr(setting.endPointPrefix, "collector"), setting.appName.getOr(""),
                  setting.tierName.getOr(""), setting.vxAppServerHost.getOr(""),
                  textOr(setting.attributes, "NA"));
    auto* url = static_cast<char*>(VXLB_MALLOC(3 * kPathSize + 2, "websocket url", -1));
    if (!url) return nullptr;
    char* out = url;
    if (!setting.rawWsPath.load(std::memory_order_relaxed)) *out++ = '/';
    for (const char* at = plain; *at; ++at) {
        const auto byte = static_cast<unsigned char>(*at);
        if (standsForItself(byte)) {
            *out++ = *at;
            continue;
        }
        *out++ = '%';
        *out++ = kHexDigits[byte >> 4];
        *out++ = kHexDigits[byte & 15];
    }
    *out = '\0';
    return url;
}

}  // namespace vx
