// Contexts of tests and fuzz targets: ready with pool, mutexes and the general defaults, current on the
// calling thread. At their end everything that hangs on them is given back.
#pragma once

#include <apr_general.h>

#include <string>
#include <utility>
#include <vector>

#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/http/VXHttpNameList.h"
#include "commonlibc/vxlb_mem.h"

namespace vx::test {

inline vxApplication* makeContext() {
    apr_initialize();
    vxApplication* app = vxNewApplication();
    apr_pool_create(&app->pool, nullptr);
    vxSetCurrent(app);
    vxMakeContextMutexes(*app);
    VXSysInit("proxy");
    return app;
}

// The shared texts in force stay, as copies of their own; what they replaced is given back.
inline void renewSharedTexts(vxApplication& app) {
    std::vector<std::pair<VXSharedText*, std::string>> inForce;
    for (VXSharedText* text : vxSharedTexts(app)) {
        if (text->get()) inForce.emplace_back(text, text->get());
        setSharedText(app.retired, *text, nullptr);
    }
    freeRetiredTexts(app.retired);
    for (auto& [text, value] : inForce) setSharedText(app.retired, *text, value.c_str());
}

inline void freeContext(vxApplication* app) {
    vxSetCurrent(nullptr);
    for (VXSharedText* text : vxSharedTexts(*app)) setSharedText(app->retired, *text, nullptr);
    freeRetiredTexts(app->retired);
    for (VXHttpNameList* list : {&app->http.request.list, &app->http.response.list, &app->http.valuesAsId})
        vxFreeNameList(*list);
    for (char* text : app->keywords.text) VXLB_FREE(text, "keyword text", -1);
    VXLB_FREE(app->collectors.vxc_server_arr, "vxc_server_arr", -1);
    apr_pool_destroy(app->pool);
    vxFreeApplication(app);
    apr_terminate();
}

}  // namespace vx::test
