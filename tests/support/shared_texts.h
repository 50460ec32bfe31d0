// Gives back the shared texts, the lists of header names and the collector records of a context at the end of
// a test.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/http/VXHttpNameList.h"
#include "commonlibc/vxlb_mem.h"

namespace vx::test {

template <class Visit>
void eachSharedText(vxApplication& app, Visit visit) {
    VXSys_t& sys = app.VXSys;
    VXBCISetting_t& setting = app.VXBCISetting;
    for (VXSharedText* text : {&sys.vxHomePath,           &sys.sessionCookieName,
                               &sys.correlationIDHeader,  &sys.vxBuild,
                               &setting.agentType,        &setting.agentVersion,
                               &setting.agentAppName,     &setting.tierName,
                               &setting.vxAppServerHost,  &setting.appName,
                               &setting.encodedTierName,  &setting.encodedServerName,
                               &setting.encodedAppName,   &setting.vxcHost,
                               &setting.attributes,       &setting.tags,
                               &setting.tierAttr,         &setting.endPointPrefix,
                               &setting.SaasHost,         &setting.projectKey,
                               &setting.authtoken,        &setting.tlsCaFile,
                               &setting.agentCertFile,    &setting.agentKeyFile,
                               &app.session.vxCookieName, &app.session.cookieDomainName})
        visit(*text);
}

// The texts in force stay, as copies of their own; what they replaced is given back.
inline void renewSharedTexts(vxApplication& app) {
    std::vector<std::pair<VXSharedText*, std::string>> inForce;
    eachSharedText(app, [&](VXSharedText& text) {
        if (text.get()) inForce.emplace_back(&text, text.get());
        setSharedText(app.retired, text, nullptr);
    });
    freeRetiredTexts(app.retired);
    for (auto& [text, value] : inForce) setSharedText(app.retired, *text, value.c_str());
}

inline void freeSharedTexts(vxApplication& app) {
    eachSharedText(app, [&](VXSharedText& text) { setSharedText(app.retired, text, nullptr); });
    freeRetiredTexts(app.retired);
    for (VXHttpNameList* list : {&app.http.request.list, &app.http.response.list, &app.http.valuesAsId})
        vxFreeNameList(*list);
    VXLB_FREE(app.collectors.vxc_server_arr, "vxc_server_arr", -1);
    app.collectors.vxc_server_arr = nullptr;
    app.collectors.vxc_server_list_size = 0;
}

}  // namespace vx::test
