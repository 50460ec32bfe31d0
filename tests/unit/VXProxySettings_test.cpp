#include "commonlibc/VXProxySettings.h"

#include <gtest/gtest.h>

#include "commonlibc/VXCServerConfig.h"
#include "tests/support/by_name.h"
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

struct Case {
    const char* name;
    std::string file;
    const char* outcome;
};
class ProxySettings : public test::HomeFixture, public testing::WithParamInterface<Case> {};

TEST_P(ProxySettings, LeaveTheirMark) {
    write("proxysetting.conf", GetParam().file);
    readVXProxyConfig();
    EXPECT_EQ(outcome(), GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ProxySettings,
    testing::ValuesIn<Case>({
        {"an_empty_file_leaves_the_defaults", "", "port 1111 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"every_number",
         "proxyPort=2000\nproxyudpTimeout=60\nnumUDPThreads=100\nvxcPort=7892\n"
         "memThresholdCheckModes=2\nmemUsageThresholdPct=50\nmemUsageThresholdSizeMB=10240\n",
         "port 2000 vxcPort 7892 udp 60/100 mem 2/50/10240"},
        {"no_udp_threads", "numUDPThreads=0\n", "port 1111 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"too_many_udp_threads", "numUDPThreads=101\n", "port 1111 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"port_behind_connection_type", "proxyConType=1\nvxcPort=7892\n",
         "port 1111 vxcPort 7892 udp 0/10 mem 1/20/2048"},
        {"connection_type_1_behind_port", "vxcPort=7892\nproxyConType=1\n",
         "port 1111 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"no_numbers",
         "proxyPort=x\nproxyPort=2000x\nproxyPort=70000\nvxcPort=-1\nproxyudpTimeout=1 s\nnumUDPThreads=ten\n"
         "memUsageThresholdPct=\xff\n",
         "port 1111 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"case_is_ignored", "PROXYPORT=2000\n", "port 2000 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"a_longer_word_is_taken", "proxyPortal=2000\n", "port 2000 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"an_empty_value_is_not", "proxyPort=\nproxyPort\n", "port 1111 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"comments_and_indented_lines", "#proxyPort=1\n proxyPort=2\n\tproxyPort=3\n\n\r\n",
         "port 1111 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"line_ends_of_windows_and_no_last_one", "proxyPort=2000\r\nvxcPort=7",
         "port 2000 vxcPort 7 udp 0/10 mem 1/20/2048"},
        {"a_line_at_the_limit", "proxyPort=" + std::string(1013 - 4, '0') + "2000\n",
         "port 2000 vxcPort 0 udp 0/10 mem 1/20/2048"},
        {"a_line_above_the_limit_is_ignored", "proxyPort=" + std::string(1014 - 4, '0') + "2000\nvxcPort=7\n",
         "port 1111 vxcPort 7 udp 0/10 mem 1/20/2048"},
        {"memory_limits_out_of_bounds_stay",
         "memThresholdCheckModes=300\nmemUsageThresholdPct=51\nmemUsageThresholdSizeMB=511\n",
         "port 1111 vxcPort 0 udp 0/10 mem 255/51/511"},
        {"bytes_that_are_no_text", std::string("\0\xff=\0\nvxcPort=7\n", 14),
         "port 1111 vxcPort 7 udp 0/10 mem 1/20/2048"},
    }),
    test::byName);

class ProxySettingsFile : public test::HomeFixture {};

TEST_F(ProxySettingsFile, AMissingOrUnreadableFileLeavesTheDefaults) {
    readVXProxyConfig();
    std::filesystem::create_directories(home() + "/config/proxysetting.conf");
    readVXProxyConfig();
    EXPECT_STREQ(outcome().c_str(), "port 1111 vxcPort 0 udp 0/10 mem 1/20/2048");
}

TEST_F(ProxySettingsFile, TheCollectorHostGoesIntoTheFirstRecordAndAnInvalidOneNowhere) {
    write("proxysetting.conf", "vxcPort=7892\nvxcHost=not a host\nvxcHost=collector.example\n");
    readVXProxyConfig();
    const VXCollectorRecord first = vxCollectorAt(0);
    EXPECT_STREQ(VXProxy.vxcHost, "collector.example");
    EXPECT_STREQ(first.host, "collector.example");
    EXPECT_EQ(first.port, 443) << "the context's port, not the one just read";
    EXPECT_EQ(first.state, 1);
    EXPECT_EQ(app->collectors.num_vxc_config, 1);
}

TEST_F(ProxySettingsFile, CeilingsKeepToTheirBounds) {
    std::string good, bad;
    for (const VXProxyRow& row : vxProxyRows()) {
        if (!row.ceiling) continue;
        good += std::string(row.key) + "=" + std::to_string(row.max) + "\n";
        bad += std::string(row.key) + "=" + std::to_string(row.min - 1) + "\n" + row.key + "=" +
               std::to_string(row.max + 1) + "\n" + row.key + "=1k\n";
    }
    const VXCeilings defaults = VXProxy.ceilings = {};
    for (const std::string& file : {bad, good + bad}) {
        write("proxysetting.conf", file);
        readVXProxyConfig();
        for (const VXProxyRow& row : vxProxyRows()) {
            if (!row.ceiling) continue;
            EXPECT_EQ(VXProxy.ceilings.*row.ceiling, file == bad ? defaults.*row.ceiling : row.max)
                << row.key;
        }
    }
    VXProxy.ceilings = {};
}

TEST_F(ProxySettingsFile, TheMemoryParserKnowsItsLines) {
    EXPECT_EQ(ParseProxyMemoryThreshold("memusagethresholdpct=99"), 1);
    EXPECT_EQ(ParseProxyMemoryThreshold("proxyPort=2000"), 0);
    EXPECT_EQ(ParseProxyMemoryThreshold("memUsageThresholdPct="), 0);
}

}  // namespace
}  // namespace vx
