// Both settings files: any bytes as proxysetting.conf and as vxsettings.conf. What is in force afterwards
// keeps to its bounds, and what the readers tell of a line is a text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "commonlibc/VXProxySettings.h"
#include "commonlibc/VXSettingRows.h"
#include "commonlibc/VXSettingsFile.h"
#include "tests/support/bare_context.h"
#include "tests/support/temp_dir.h"

namespace {

using vx::test::require;

std::size_t told = 0;

void take(const vx::VXSettingReport& report) {
    told +=
        std::strlen(report.source) + std::strlen(report.text) + (report.key ? std::strlen(report.key) : 0);
}

const std::string& home() {
    static const vx::test::TempDir root;
    static const std::string path = root.path();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    setenv("VXHOME", home().c_str(), 1);
    vx::vxApplication& app = vx::test::bareContext();
    std::filesystem::create_directories(home() + "/proxy/config");
    for (const char* name : {"proxysetting.conf", "vxsettings.conf"})
        std::ofstream(home() + "/proxy/config/" + name, std::ios::binary)
            .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));

    vx::vxSettingObserver = take;
    require(vx::vxReadProxyFile());
    if (vx::read_env_var() != 0) vx::read_conf_file();
    vx::vxSettingObserver = nullptr;
    for (const vx::VXProxyRow& row : vx::vxProxyRows()) {
        told += row.show(row).size();
        if (!row.ceiling) continue;
        const std::int32_t value = vx::VXProxy.ceilings.*row.ceiling;
        require(value >= row.min && value <= row.max);
    }
    for (const vx::VXSettingRow& row : vx::vxSettingRows()) told += row.show().size();
    require(vx::VXProxy.proxyPort >= 0 && vx::VXProxy.proxyPort <= 65535);
    require(vx::VXProxy.numUDPThreads >= 0 && vx::VXProxy.numUDPThreads <= 100);
    vx::test::clearLink(app);
    return 0;
}
