// Fixture: a ready context with its identity's defaults, an agent "agent" and a home folder of its own, whose
// config files the test writes. The process's settings start from zero; the environment names nothing but the
// home.
#pragma once

#include <cstdlib>
#include <string>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXSettingRows.h"
#include "commonlibc/vxlb_mem.h"
#include "tests/support/app_fixture.h"
#include "tests/support/temp_dir.h"

namespace vx::test {

class HomeFixture : public AppFixture {
protected:
    void SetUp() override {
        for (const VXSettingRow& row : vxSettingRows())
            if (row.variable) unsetenv(row.variable);
        setenv("VXHOME", root_.path().c_str(), 1);
        clearProxy();
        AppFixture::SetUp();
        VXBCISettingInit();
        app->identity.agentName = agentName_;
    }
    void TearDown() override {
        clearProxy();
        AppFixture::TearDown();
    }

    std::string home() const { return root_ / "proxy"; }
    // Writes a file of the config folder.
    void write(const std::string& name, const std::string& text) const {
        root_.write("proxy/config/" + name, text);
    }
    // What such a file holds.
    std::string read(const std::string& name) const { return root_.read("proxy/config/" + name); }
    // What the cache holds for the agent.
    std::string cached(const std::string& name) const { return root_.read("proxy/.cache/agent/" + name); }

private:
    static void clearProxy() {
        VXLB_FREE(VXProxy.vxcHost, "text copy", -1);
        VXLB_FREE(VXProxy.vxHomePath, "text copy", -1);
        VXProxy.vxcHost = VXProxy.vxHomePath = nullptr;
        VXProxy.proxyMode = 0;
        VXProxy.vxcPort = 0;
        VXProxy.proxyPort = 1111;
        VXProxy.numUDPThreads = 10;
        VXProxy.proxyudpTimeout = 0;
        VXProxy.memThresholdCheckModes = 1;
        VXProxy.memUsageThresholdPct = 20;
        VXProxy.memUsageThresholdSizeMB = 2048;
    }

    TempDir root_;
    char agentName_[8] = "agent";
};

}  // namespace vx::test
