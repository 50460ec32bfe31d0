#include "dotnetagent/agent/vx_service_check.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "commonlibc/VXKeywords.h"
#include "commonlibc/VXProxySettings.h"
#include "commonlibc/vx_agent.h"
#include "tests/support/home_fixture.h"
#include "tests/support/ws_bridge.h"

namespace vx {
namespace {

class CheckConfig : public test::HomeFixture {
protected:
    // In a process of its own, as the command is; the answer. `report` has the rest.
    int runCheck() {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            std::string text;
            const int answer = vxCheckConfig(&text);
            const bool whole =
                ::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
            ::_exit(whole ? answer : 99);
        }
        ::close(ends[1]);
        report.clear();
        char bytes[4096];
        for (ssize_t count = 0; (count = ::read(ends[0], bytes, sizeof(bytes))) > 0;)
            report.append(bytes, static_cast<std::size_t>(count));
        ::close(ends[0]);
        int status = 0;
        ::waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // Checks these two files.
    int check(const std::string& proxyFile, const std::string& agentFile) {
        write("proxysetting.conf", proxyFile);
        write("vxsettings.conf", agentFile);
        return runCheck();
    }
    bool says(const std::string& text) const { return report.find(text) != std::string::npos; }
    std::string report;
};

TEST_F(CheckConfig, ShowsEachSettingWithItsOriginAndLeavesNoTrace) {
    setenv("ZOR_APP_AGENT_TIER", "Web", 1);
    setenv("ZOR_APP_AGENT_TEIR", "misspelt", 1);
    EXPECT_EQ(check("# service\n\nproxyPort=2000\nPROXYPORT=2001\n #\nmaxSlots=500\n",
                    "vxcHost=h\r\ntier=T\r\ntags=a=b\nVXC_COMM_PROTOCOL=TCP:7000\nbackupVxcHostName=b\n"),
              kCheckPassed)
        << report;
    report = std::regex_replace(report, std::regex(" +"), " ");
    for (const char* told :
         {"\n proxyPort 2001 [line 4]\n", "\n maxMethods 100000 [not set]\n",
          "\n tier Web [variable ZOR_APP_AGENT_TIER]\n", "\n tags {\"a\":\"b\"} [line 3, written 'a=b']\n",
          "Collector: h:7000, protocols TCP:7000, backup b:",
          "proxysetting.conf:3: proxyPort is given again in line 4, which stands",
          "vxsettings.conf:2: not used, another setting goes before: 'tier=T'",
          "ZOR_APP_AGENT_TEIR: no variable of this service"})
        EXPECT_TRUE(says(told)) << told << report;
    EXPECT_FALSE(std::filesystem::exists(home() + "/logs"));
    unsetenv("ZOR_APP_AGENT_TEIR");
}

TEST_F(CheckConfig, TellsEachFaultWithFileAndLine) {
    const std::string wide(2048, 'x');
    const struct {
        std::string proxyFile, agentFile, told;
    } rows[] = {
        {"#\na\x1b[2J=1\n", "", "proxysetting.conf:2: unknown setting, ignored: 'a?[2J=1'"},
        {" proxyPort=1", "", "proxysetting.conf:1: begins with a blank or tab, ignored: ' proxyPort=1'"},
        {"memUsageThresholdPct=51", "",
         "proxysetting.conf:1: out of bounds, yet in force: 'memUsageThresholdPct=51'"},
        {"", "tier=" + wide, "vxsettings.conf:2: too long, ignored: 'tier=" + wide.substr(0, 195) + "...'"},
        {"", "VXC_COMM_PROTOCOL=TCP:1,X:2",
         "vxsettings.conf:2: taken in part, an item is not valid: 'VXC_COMM_PROTOCOL=TCP:1,X:2'"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(check(row.proxyFile, "vxcHost=h\n" + row.agentFile), kCheckFailed) << report;
        EXPECT_TRUE(says("\n  " + row.told + "\n") && says("\n1 fault(s).")) << row.told << report;
    }
}

TEST_F(CheckConfig, TellsOfFilesThatAreMissingUnreadableOrUnused) {
    EXPECT_EQ(runCheck(), kCheckFailed);
    EXPECT_TRUE(says("no collector is named: vxcHost of vxsettings.conf names one") &&
                says("proxysetting.conf: there is no such file") &&
                says("vxsettings.conf: there is no such file"))
        << report;

    check("vxcHost=f\nvxcPort=7\n", "#\n");
    EXPECT_TRUE(says("Collector: f:7,")) << report;

    setenv("ZOR_APP_AGENT_VXCHOST", "h", 1);
    EXPECT_EQ(check("vxcHost=other\n", "nonsense\n"), kCheckPassed) << report;
    EXPECT_TRUE(says("vxsettings.conf is not read: a variable names the collector") &&
                says("vxcHost of proxysetting.conf is not used") && says("Collector: h:443, protocols WSS"));

    setenv("ZOR_APP_AGENT_VXCPORT", "70000", 1);
    std::filesystem::remove(home() + "/config/proxysetting.conf");
    ASSERT_EQ(::mkfifo((home() + "/config/proxysetting.conf").c_str(), 0600), 0);  // nobody will write to it
    EXPECT_EQ(runCheck(), kCheckFailed);
    EXPECT_TRUE(says("proxysetting.conf: cannot be read: 'no regular file'") &&
                says("ZOR_APP_AGENT_VXCPORT: not a valid value, ignored: '70000'"))
        << report;
}

// The default that a help text names in its last brackets; empty without any.
std::string defaultIn(const std::string& help) {
    const std::size_t from = help.rfind('(');
    return help.ends_with(')') && from != std::string::npos ? help.substr(from + 1, help.size() - from - 2)
                                                            : "";
}

TEST_F(CheckConfig, HelpAndOperatorsGuideNameEverySettingAndItsTrueDefault) {
    setenv("ZOR_APP_AGENT_VXCHOST", "h", 1);
    ASSERT_EQ(vxCheckConfig(&report), kCheckPassed) << report;
    std::ostringstream guideText;
    guideText << std::ifstream(VX_SOURCE_DIR "/docs/operations.md").rdbuf();
    const std::string guide = guideText.str(), help = vxSettingsHelp();
    const auto stands = [](const std::string& text, const std::string& part) {
        EXPECT_NE(text.find(part), std::string::npos) << part;
    };
    for (const VXProxyRow& row : vxProxyRows()) {
        const std::string value = defaultIn(row.help);
        EXPECT_EQ(value.empty() ? value : row.show(row), value) << row.key;
        stands(guide, "| `" + std::string(row.key) + "` | " + row.help + " |\n");
        stands(help, "  " + std::string(row.key) + " ");
    }
    for (const VXSettingRow& row : vxSettingRows()) {
        const std::string value = defaultIn(row.help);
        EXPECT_EQ(value.empty() ? value : row.show(), value) << row.help;
        const auto cell = [](const char* text) { return text ? "`" + std::string(text) + "`" : "-"; };
        stands(guide, "| " + cell(row.key) + " | " + cell(row.variable) + " | " + row.help + " |\n");
        stands(help, row.help);
    }
    for (int i = 0; i < kKeywordRows; ++i) stands(guide, "`" + std::string(keywordsMap[i].name) + "`");
}

TEST_F(CheckConfig, ReadsTheCertificateForAgentsAsAStartDoes) {
    const test::TestCertificate made;
    const std::string agents = "vxcHost=127.0.0.1\n", both = "proxyAgentWebSocket=2\n";
    EXPECT_EQ(check("proxyAgentWebSocket=1\n", agents), 0) << report;
    EXPECT_NE(check(both, agents), 0);
    EXPECT_TRUE(says("proxy.cert' cannot be read")) << report;
    write("proxy.cert", "no certificate\n");
    EXPECT_NE(check(both, agents), 0);
    EXPECT_TRUE(says("no certificate in '")) << report;
    const std::string files = "vxAgentCertFile=" + made.certificate + "\nvxAgentKeyFile=" + made.key + "\n";
    EXPECT_EQ(check(both, agents + files), 0) << report;
}

}  // namespace
}  // namespace vx
