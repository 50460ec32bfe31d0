// Gives back the shared texts, the lists of header names and the collector records of a context at the end of
// a test.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "commonlibc/VXSys.h"
#include "commonlibc/http/VXHttpNameList.h"
#include "commonlibc/vxlb_mem.h"

namespace vx::test {

// The texts in force stay, as copies of their own; what they replaced is given back.
inline void renewSharedTexts(vxApplication& app) {
    std::vector<std::pair<VXSharedText*, std::string>> inForce;
    for (VXSharedText* text : vxSharedTexts(app)) {
        if (text->get()) inForce.emplace_back(text, text->get());
        setSharedText(app.retired, *text, nullptr);
    }
    freeRetiredTexts(app.retired);
    for (auto& [text, value] : inForce) setSharedText(app.retired, *text, value.c_str());
}

inline void freeSharedTexts(vxApplication& app) {
    for (VXSharedText* text : vxSharedTexts(app)) setSharedText(app.retired, *text, nullptr);
    freeRetiredTexts(app.retired);
    for (VXHttpNameList* list : {&app.http.request.list, &app.http.response.list, &app.http.valuesAsId})
        vxFreeNameList(*list);
    VXLB_FREE(app.collectors.vxc_server_arr, "vxc_server_arr", -1);
    app.collectors.vxc_server_arr = nullptr;
    app.collectors.vxc_server_list_size = 0;
}

}  // namespace vx::test
