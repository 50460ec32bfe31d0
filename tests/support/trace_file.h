// The trace log of a test: lines go to a temporary home at every level of the context, and can be read back.
//
//     TraceFile trace(*app);
//     ... code under test ...
//     EXPECT_TRUE(trace.says("|Error|Send Failed '"));
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"
#include "tests/support/temp_dir.h"

namespace vx::test {

class TraceFile {
public:
    // The context's home becomes the temporary one; `level` serves every module but MEMORY.
    explicit TraceFile(vxApplication& app, int level = 4) {
        setSharedText(app.retired, app.VXSys.vxHomePath, home_.path().c_str());
        VXSys_t& sys = app.VXSys;
        for (std::int32_t* word :
             {&sys.ControlThreadTraceLevel, &sys.enableFPTrace, &sys.enableBTMonitorTrace,
              &sys.enableBackendMonTrace, &sys.vxMethodMonTraceLevel, &sys.captureExceptionTraceLevel,
              &sys.enableThreadMonTraceLevel})
            vx_word_set(*word, level);
        VXTraceInit("test", nullptr);
    }
    ~TraceFile() { VXTraceClose(); }

    const TempDir& home() const { return home_; }
    // Names in the logs folder, sorted.
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        std::error_code missing;
        for (const auto& entry : std::filesystem::directory_iterator(home_ / "logs", missing))
            found.push_back(entry.path().filename().string());
        std::sort(found.begin(), found.end());
        return found;
    }
    // Everything traced so far.
    std::string text() const {
        std::string all;
        for (const std::string& name : names()) all += home_.read("logs/" + name);
        return all;
    }
    bool says(const std::string& part) const { return text().find(part) != std::string::npos; }

private:
    TempDir home_;
};

}  // namespace vx::test
