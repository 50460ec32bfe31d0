// The installer: what it puts where, that it can be run again, and that it takes away only what it brought.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/program.h"
#include "tests/support/temp_dir.h"

namespace vx::test {
namespace {

TEST(Installer, KeepsSettingsWhenRunAgainAndTheHomeWhenTakenAway) {
    namespace fs = std::filesystem;
    TempDir dir;
    const auto run = [&dir](std::vector<std::string> more) {
        std::vector<std::string> command = {VX_SOURCE_DIR "/scripts/install",
                                            "--build",
                                            fs::path(VX_BIN_DIR).parent_path(),  //
                                            "--destdir",
                                            dir / "root",
                                            "--prefix",
                                            "/opt/vx",
                                            "--home",
                                            "/var/lib/telemetry/one",
                                            "--user",
                                            "watcher"};
        command.insert(command.end(), more.begin(), more.end());
        return Program({command, {}, dir / "output"}).wait(60);
    };
    const std::string home = "root/var/lib/telemetry/one/", config = home + "proxy/config/";
    const std::string unitFile = "root/etc/systemd/system/vxproxy.service";
    ASSERT_EQ(run({}), 0) << dir.read("output");
    const std::string unit = dir.read(unitFile);
    for (const char* line : {"\nExecStart=/opt/vx/bin/VXProxyService\n", "\nUser=watcher\nGroup=watcher\n",
                             "\nEnvironment=VXHOME=/var/lib/telemetry/one\n",
                             "\nStateDirectory=telemetry/one\n", "\nRestart=on-failure\n"})
        EXPECT_NE(unit.find(line), std::string::npos) << line << unit;
    EXPECT_EQ(unit.find("/usr/local"), std::string::npos);
    // What is installed can be started as it stands, once a collector is named.
    const std::string settings = dir.read(config + "vxsettings.conf") + "vxcHost=127.0.0.1\n";
    dir.write(config + "vxsettings.conf", settings);
    Program check({{dir / "root/opt/vx/bin/VXProxyService", "--check-config"},
                   {"VXHOME=" + (dir / home)},
                   dir / "output"});
    EXPECT_EQ(check.wait(), 0) << dir.read("output");
    if (fs::exists("/usr/bin/systemd-analyze")) {  // which tells of every line that systemd would pass over
        std::string here = unit;
        const std::string root = dir / "root";
        for (std::size_t at = 0; (at = here.find("/opt/vx/", at)) != std::string::npos; at += root.size() + 1)
            here.insert(at, root);
        Program verify({{"/usr/bin/systemd-analyze", "verify", dir.write("vxproxy.service", here)},
                        {},
                        dir / "verified"});
        EXPECT_EQ(verify.wait(), 0);
        EXPECT_EQ(dir.read("verified"), "");
    }

    ASSERT_EQ(run({}), 0);
    EXPECT_EQ(dir.read(config + "vxsettings.conf"), settings);
    EXPECT_EQ(dir.read(unitFile), unit);
    EXPECT_EQ(run({"--uninstall"}), 0);
    EXPECT_FALSE(fs::exists(dir / unitFile) || fs::exists(dir / "root/opt/vx/bin/VXProxyService"));
    EXPECT_EQ(dir.read(config + "vxsettings.conf"), settings);
    dir.write(home + "not-ours", "");
    EXPECT_EQ(run({"--uninstall", "--purge"}), 0);
    EXPECT_TRUE(fs::exists(dir / (home + "not-ours")) && !fs::exists(dir / (home + "proxy")));

    EXPECT_EQ(run({"--home", "relative"}), 2);
    EXPECT_EQ(run({"--home", "/home/somebody"}), 2);  // which the unit hides
    EXPECT_EQ(run({"--user", "a b"}), 2);
    EXPECT_EQ(run({"--prefix"}), 2);
}

}  // namespace
}  // namespace vx::test
