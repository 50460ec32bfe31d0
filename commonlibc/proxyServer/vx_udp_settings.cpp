#include "commonlibc/proxyServer/vx_udp_settings.h"

#include <array>
#include <cstdio>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/proxyServer/vx_udp_clients.h"
#include "commonlibc/vxlb_json.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

using Members = std::array<VXJsonMember, 7>;

constexpr int kEveryPart = -1;  // of sections that stand in the whole document only

VXJsonMember number(const char* name, std::int64_t value) {
    return {name, nullptr, value};
}
VXJsonMember text(const char* name, const char* value) {
    return {name, value ? value : "", 0};
}

// Naming of back-ends by host and by URL is not configured in this service: no flag is set.
constexpr const char* kBackendNameRule = "0-0-0-0";

struct Section {
    const char* name;
    int part;  // the part that holds it, beside the whole document
    Members (*members)(const vxApplication& app, std::int32_t index);
};

constexpr Section kSections[] = {
    {"AppId", kEveryPart,
     [](const vxApplication&, std::int32_t index) -> Members { return {number("id", index)}; }},
    {"TierInfo", kEveryPart,
     [](const vxApplication& app, std::int32_t) -> Members {
         const VXBCISetting_t& setting = app.VXBCISetting;
         return {number("tierID", vx_word_get(setting.tierID)),
                 number("AppServerID", vx_word_get(setting.vxAppServerID)),
                 number("appID", vx_word_get(setting.appID))};
     }},
    {"TestInfo", 3,
     [](const vxApplication& app, std::int32_t) -> Members {
         return {number("TestNumber", app.VXBCISetting.testRunIndex.load(std::memory_order_relaxed)),
                 number("bciInstrSessionPct", vx_word_get(app.VXSys.bciInstrSessionPct)),
                 number("captureMethodForAllFP", vx_word_get(app.VXSys.captureMethodForAllFP))};
     }},
    {"VXCookie", kSettingsSession,
     [](const vxApplication& app, std::int32_t) -> Members {
         return {number("enableVXSession", vx_word_get(app.VXSys.enableVXSession)),
                 text("CookieName", app.session.vxCookieName.get()),
                 text("DomainName", app.session.cookieDomainName.get()),
                 number("headerInResponse", vx_word_get(app.session.headerInResponse)),
                 number("mpos", vx_word_get(app.session.mpos)),
                 number("maxFPCountInSession", vx_word_get(app.VXSys.maxFPCountInSession)),
                 number("vxSessionIdleTimeOutSecs", vx_word_get(app.VXSys.vxSessionIdleTimeOutSecs))};
     }},
    {"KWCookie", kSettingsKeyWord,
     [](const vxApplication& app, std::int32_t) -> Members {
         return {text("KWCookieName", app.VXSys.sessionCookieName.get())};
     }},
    {"CorelationHeader", 5,
     [](const vxApplication& app, std::int32_t) -> Members {
         return {text("corelationheader", app.VXSys.correlationIDHeader.get())};
     }},
    {"BackendNameRule", kEveryPart,
     [](const vxApplication&, std::int32_t) -> Members {
         return {text("BackendNameRuleValue", kBackendNameRule)};
     }},
    {"otel", kEveryPart,
     [](const vxApplication& app, std::int32_t) -> Members {
         return {number("otelkeyword", vx_word_get(app.VXSys.otelEnabled))};
     }},
    {"enableDBBackendName", kEveryPart,
     [](const vxApplication& app, std::int32_t) -> Members {
         return {number("enableDBBackendName", vx_word_get(app.VXSys.enableDBBackendName))};
     }},
};

}  // namespace

int vxUdpSettingsDocument(std::int32_t index, int part, char* out, std::size_t size) {
    const vxApplication& app = *vxCurrent();
    std::array<Members, std::size(kSections)> members{};
    std::array<VXJsonSection, std::size(kSections)> sections{};
    std::size_t count = 0;
    for (const Section& section : kSections) {
        if (part != kSettingsAll && part != section.part) continue;
        members[count] = section.members(app, index);
        sections[count] = {section.name, members[count]};
        ++count;
    }
    return vxlb_json_sections({sections.data(), count}, out, size);
}

void vxUdpAnswerSettings(std::int32_t index, int part) {
    char document[kSettingsDocumentSize];
    const int length = vxUdpSettingsDocument(index, part, document, sizeof(document));
    if (length < 0)
        VX_TRACE(1, kControlThread, kError, "The settings of context %d cannot be written", index);
    else
        vxUdpSendToClients(document, static_cast<std::size_t>(length), "Send message to agent");
}

}  // namespace vx
