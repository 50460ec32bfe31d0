#include "commonlibc/VXFileBasedKeywords.h"

#include <string>
#include <thread>
#include <vector>

#include "commonlibc/ServerReply.h"
#include "commonlibc/VXCriticalFiles.h"
#include "commonlibc/VXFileHead.h"
#include "commonlibc/control_buffer.h"
#include "commonlibc/control_lines.h"
#include "commonlibc/control_loop.h"
#include "commonlibc/vxlb_utf8.h"
#include "tests/support/link_fixture.h"

namespace vx::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kHead = "vx_control_rep:action=file;keyword=blackListForDebugSession;size=";
const std::string kRequest = "vx_control_req:action=send_file;keyword=blackListForDebugSession;";
const std::string kNotCome = "Failed to get response of 'blackListForDebugSession' file base keyword";
const std::string kOtherHead =
    "Didn't receive expected header message while reading response  from VXC for 'blackListForDebugSession' "
    "file "
    "based keyword.";
const std::string kFailed =
    "vx_control_rep:action=FailedblackListForDebugSession - .cache/a/blackListForDebugSession\n";

// A control connection whose collector has said beforehand all that the code under test is going to read.
class FileKeywords : public LinkFixture {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        connect();
        setProxyVXHome();
        setDefaultCriticalFile();
        app->control.lastHeartBeatTime = vxlb_steady_ms();
        parsed.clear();
        vxUpcalls.setblackListForDebugSession = [](char* text) {
            parsed += std::string(text) + "$";
            *text = '?';  // a parser takes its text apart
        };
    }
    // Lines that name a file, and other fields behind it.
    static void start(const std::string& file, const std::string& more = "") {
        apply(kStartPrefix, file, more);
        useHeldFiles();
    }
    static void modify(const std::string& file) { apply(kModifyPrefix, file, ""); }
    // What the collector was asked since the last call.
    Lines asked() {
        controlConnectionSendBuffer("end\n", 4);
        Lines lines = peer.readLinesUpTo("end");
        lines.pop_back();
        return lines;
    }
    std::string warnings() const { return app->Server.warnings; }

    inline static std::string parsed;

private:
    static void apply(const char* prefix, const std::string& file, const std::string& more) {
        parsed.clear();
        findStatusFromClientMsg((prefix + (";blackListForDebugSession=" + file + ";") + more).c_str());
    }
};

TEST_F(FileKeywords, AChangedFileIsFetchedAndAnUnchangedOneOnlyParsedAgainByAStart) {
    peer.send(kHead + "5;lmd=1;\nab\ncd");
    start("f.txt|5|1");
    EXPECT_EQ(asked(), Lines{kRequest});
    EXPECT_EQ(parsed, "ab\ncd$");
    EXPECT_EQ(cached("blackListForDebugSession"), "ab\ncd");

    start("f.txt|5|1");
    EXPECT_EQ(parsed, "ab\ncd$");  // whole again, though its parser has taken a text apart
    modify("f.txt|5|1");
    EXPECT_EQ(parsed, "");
    start("f.txt|0|2");
    start("na");  // no longer named, no longer in force
    EXPECT_EQ(parsed, "");
    for (const char* seen : {"ab\ncd$", ""}) {  // a change puts it in force again, once
        modify("f.txt|5|1");
        EXPECT_EQ(parsed, seen);
    }
    EXPECT_EQ(asked(), Lines{});

    for (const auto& [changed, text] : {std::pair("f.txt|5|2", "abcde"),
                                        {"f.txt|6|2", "abcdef"},
                                        {"g.txt|6|2", "abcdef"},
                                        {"g.txt|8|2", "\xEF\xBB\xBFxabcd"}}) {
        peer.send(kHead + changed[6] + ";lmd=2;\n" + text);
        modify(changed);
        EXPECT_EQ(asked(), Lines{kRequest}) << changed;
        EXPECT_EQ(parsed, text + vxlb_mark_length(text) + std::string("$"));
    }
    EXPECT_EQ(warnings(), "");
}

TEST_F(FileKeywords, AFailedFetchLeavesWhatIsHeldInForce) {
    peer.send(kHead + "3;lmd=1;\nold");
    start("f|3|1");
    for (int attempt = 0; attempt < 2; ++attempt) {  // the next line asks again
        asked();
        peer.send(kFailed + kFailed);
        start("f|3|2");
        EXPECT_EQ(asked(), (Lines{kRequest, kRequest}));
        EXPECT_EQ(parsed, "old$");
    }
    peer.send(kFailed + kFailed);
    modify("f|3|2");
    EXPECT_EQ(parsed, "");
    EXPECT_EQ(warnings(), kNotCome + "; " + kNotCome + "; " + kNotCome);
}

TEST_F(FileKeywords, AnswersAreTakenOrGivenUp) {
    const struct {
        const char* name;
        std::string answer, parsed, warnings;
    } rows[] = {
        {"plain head", kHead + "3;lmd=1;\nabc", "abc$", ""},
        {"escaped head",
         "vx_control_rep:action=file;keyword=blackListForDebugSession%3Bsize%3D3%3Blmd%3D-1;\nabc", "abc$",
         ""},
        {"head with bars", "vx_control_rep:action=file;keyword=blackListForDebugSession|3|1\r\nabc", "abc$",
         ""},
        {"a zero byte ends the text only", kHead + "4;lmd=1;\nab" + std::string(1, '\0') + "c", "ab$", ""},
        {"surplus stays for the lines", kHead + "3;lmd=1;\nabcdef\n", "abc$", ""},
        {"other lines before it are dropped",
         "\n\nvx_control_req:action=reconnect;x\nvx_control_rep:action=FailedInstrumentationProfile - x\n" +
             kHead + "3;lmd=1;\nabc",
         "abc$", ""},
        {"failed once", kFailed + kHead + "3;lmd=1;\nabc", "abc$", ""},
        {"the late answer of another file",
         "vx_control_rep:action=file;keyword=blackListForDebugSession2;size=5000;lmd=1;\n" +
             std::string(5000, '\n') + kHead + "3;lmd=1;\nabc",
         "abc$", kOtherHead},
        {"size 0", kHead + "0;lmd=1;\n", "", kNotCome},
        {"above the limit", kHead + "67108865;lmd=1;\n", "", kNotCome},
        {"no number", kHead + "3x;lmd=1;\nabc\n", "", kNotCome},
        {"no date", kHead + "3;\nabc\n", "", kNotCome},
        {"cut short", kHead + "60000000;lmd=1;\nabc", "", kNotCome},
        {"no answer", "", "", kNotCome},
        {"a line without end", "vx_control_rep:action=other" + std::string(300000, 'x'), "", kNotCome},
    };
    vx_word_set(app->VXSys.fileReadTimeout, 20000);
    int date = 9;
    for (const auto& row : rows) {
        vxlb_shared_close(app->control.controlSocket);
        connect();
        controlSockBufReset(*app);
        app->Server.warnings[0] = '\0';
        peer.send(row.answer + "next\n");
        modify("f|9|" + std::to_string(++date));
        EXPECT_EQ(parsed, row.parsed) << row.name;
        EXPECT_EQ(warnings(), row.warnings) << row.name;
        EXPECT_EQ(app->control.closeCtrlConFlag, 0) << row.name;
    }
}

TEST_F(FileKeywords, NoLineIsTornBetweenReadLoopAndExchange) {
    const std::string order = std::string(kModifyPrefix) + ";blackListForDebugSession=f|3|";
    const std::string answer = "vx_control_req:dropped\n" + kHead + "3;lmd=7;\na\nb";
    const std::string heartbeat = "vx_control_req:action=reconnect;x;dataConnState=0;\n";
    app->Server.instrumentationStarted = 1;
    ctrlBufInfo_t& info = app->control.ctrlBufInfo;
    for (std::size_t cut = 0; cut <= answer.size() + heartbeat.size(); ++cut) {
        const std::string line = order + std::to_string(1000 + cut) + ";\n";
        const std::string all = answer + heartbeat;
        const std::string held = line + all.substr(0, cut);  // arrived together
        held.copy(info.read_socket_buf, held.size());
        info.readOffset = 0;
        info.readBytes = info.writeOffset = static_cast<std::int32_t>(held.size());
        info.read_socket_buf[held.size()] = '\0';
        peer.send(all.substr(cut));
        parsed.clear();
        app->VXSys.dataConnState = 1;
        processControlConnectionMessage(&info);
        while (app->VXSys.dataConnState == 1 && read_msg_from_vxc(&info) == 0) continue;
        ASSERT_EQ(parsed, "a\nb$") << cut;
        ASSERT_EQ(app->VXSys.dataConnState, 0) << cut;
    }
    EXPECT_EQ(asked().size(), 2 * (answer.size() + heartbeat.size() + 1));  // each a request and a reply
}

TEST_F(FileKeywords, AStopEndsTheExchangeAndThePass) {
    std::thread stopper([&] {
        EXPECT_EQ(peer.readLine(), kRequest);
        app->control.proxyStopRequested = 1;
    });
    const auto before = std::chrono::steady_clock::now();
    start("f|3|1", "tierID=9;");
    stopper.join();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(30));
    EXPECT_EQ(getTierID(), 0);
}

TEST_F(FileKeywords, ASilentCollectorIsNotWaitedForFileByFile) {
    vx_word_set(app->VXSys.fileReadTimeout, 1000);
    app->control.lastHeartBeatTime = vxlb_steady_ms() - 500000;
    start("f|3|1", "vxBackendNamingRulesFile=g|3|1;tierID=9;");
    EXPECT_EQ(app->control.closeCtrlConFlag, 1);
    EXPECT_EQ(asked(), Lines{kRequest});
    EXPECT_EQ(getTierID(), 0);
}

TEST_F(FileKeywords, TheCollectorsListSaysWhatIsCritical) {
    EXPECT_TRUE(isCriticalFile("BTRuleConfig") && isCriticalFile("VXEntryPointsFile"));
    EXPECT_FALSE(isCriticalFile("BTRule") || isCriticalFile("blackListForDebugSession") ||
                 isCriticalFile(""));
    peer.send(
        "vx_control_rep:action=file;keyword=vxCriticalFileList;size=39;lmd=1;\n"
        "blackListForDebugSession\r\nBTTConfig;,;\n" +
        kFailed + kFailed);
    for (int run = 1; run <= 2; ++run) {  // in the second one it is unchanged, and in force within the pass
        app->control.closeCtrlConFlag = 0;
        setDefaultCriticalFile();
        findStatusFromClientMsg(
            (kStartPrefix + std::string(";vxCriticalFileList=c|39|1;blackListForDebugSession=f|3|1;"))
                .c_str());
        EXPECT_EQ(app->control.closeCtrlConFlag, 1);
        peer.send(kFailed + kFailed);
    }
    EXPECT_TRUE(isCriticalFile("BTTConfig"));
    EXPECT_FALSE(isCriticalFile("BTRuleConfig"));
}

}  // namespace
}  // namespace vx::test
