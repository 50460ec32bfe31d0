#include "commonlibc/VXProxySettings.h"

#include "tests/support/home_fixture.h"

namespace vx {
namespace {

// What a file leaves in the process's settings, in one comparable line.
std::string outcome() {
    return "port " + std::to_string(VXProxy.proxyPort) + " vxcPort " + std::to_string(VXProxy.vxcPort) +
           " udp " + std::to_string(VXProxy.proxyudpTimeout) + "/" + std::to_string(VXProxy.numUDPThreads) +
           " mem " + std::to_string(VXProxy.memThresholdCheckModes) + "/" +
           std::to_string(VXProxy.memUsageThresholdPct) + "/" +
           std::to_string(VXProxy.memUsageThresholdSizeMB);
}

class ProxySettingsFile : public test::HomeFixture {
protected:
    // What this file leaves, in place of the defaults.
    std::string after(const std::string& file) {
        TearDown();
        SetUp();
        write("proxysetting.conf", file);
        readVXProxyConfig();
        return outcome();
    }
};

TEST_F(ProxySettingsFile, LinesLeaveTheirMark) {
    const std::string defaults = "port 1111 vxcPort 0 udp 0/10 mem 1/20/2048";
    const auto with = [&](const std::string& port, const std::string& vxcPort) {
        return "port " + port + " vxcPort " + vxcPort + " udp 0/10 mem 1/20/2048";
    };
    const std::pair<std::string, std::string> rows[] = {
        {"", defaults},
        {"proxyPort=2000\nproxyudpTimeout=60\nnumUDPThreads=100\nvxcPort=7892\n"
         "memThresholdCheckModes=2\nmemUsageThresholdPct=50\nmemUsageThresholdSizeMB=10240\n",
         "port 2000 vxcPort 7892 udp 60/100 mem 2/50/10240"},
        {"numUDPThreads=0\nnumUDPThreads=101\n", defaults},
        {"proxyConType=1\nvxcPort=7892\n", with("1111", "7892")},
        {"vxcPort=7892\nproxyConType=1\n", defaults},  // the type takes back the port ahead of it
        {"proxyPort=2000x\nproxyPort=70000\nvxcPort=-1\nproxyudpTimeout=1 s\nnumUDPThreads=ten\n"
         "memUsageThresholdPct=\xff\nproxyPort=\nproxyPort\n",
         defaults},
        {"PROXYPORT=2000\n", with("2000", "0")},
        {"proxyPortal=2000\n", with("2000", "0")},
        {"#proxyPort=1\n proxyPort=2\n\tproxyPort=3\n\n\r\n", defaults},
        {"\xEF\xBB\xBFproxyPort=2000\r\nvxcPort=7", with("2000", "7")},
        {"proxyPort=" + std::string(1013 - 4, '0') + "2000\n", with("2000", "0")},
        {"proxyPort=" + std::string(1014 - 4, '0') + "2000\nvxcPort=7\n", with("1111", "7")},
        {"memThresholdCheckModes=300\nmemUsageThresholdPct=51\nmemUsageThresholdSizeMB=511\n",
         "port 1111 vxcPort 0 udp 0/10 mem 255/51/511"},
        {std::string("\0\xff=\0\nvxcPort=7\n", 14), with("1111", "7")},
    };
    for (const auto& [file, expected] : rows) EXPECT_EQ(after(file), expected) << file;
    TearDown();
    SetUp();
    std::filesystem::remove(home() + "/config/proxysetting.conf");
    std::filesystem::create_directories(home() + "/config/proxysetting.conf");
    readVXProxyConfig();
    EXPECT_EQ(outcome(), defaults) << "a folder in the place of the file";
}

}  // namespace
}  // namespace vx
