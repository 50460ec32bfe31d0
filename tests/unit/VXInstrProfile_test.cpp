#include "commonlibc/VXInstrProfile.h"

#include <string>
#include <vector>

#include "commonlibc/ServerReply.h"
#include "commonlibc/VXFileBasedKeywords.h"
#include "commonlibc/VXMethodManager.h"
#include "tests/support/link_fixture.h"

namespace vx::test {
namespace {

const std::string kWebText = "m|web|get|1|1|", kDbText = "m|db|query|1|0|\n";  // one ends within its line

class InstrProfiles : public LinkFixture {
protected:
    void SetUp() override {
        LinkFixture::SetUp();
        connect();
        setProxyVXHome();
        app->control.lastHeartBeatTime = vxlb_steady_ms();
        vx_word_set(app->VXSys.fileReadTimeout, 20000);
    }
    void start(const std::string& fields) { line(kStartPrefix, fields, 0); }
    void modify(const std::string& fields) { line(kModifyPrefix, fields, 1); }
    void line(const char* prefix, const std::string& fields, std::uint8_t change) {
        makeInstrProfTableFree();
        if (!change) vx_word_set(app->Server.numInstrProfile, 0);
        app->Server.runtimeChange = change;
        app->Server.rehashRequested = 0;
        findStatusFromClientMsg((std::string(prefix) + ";status=running;" + fields).c_str());
        useHeldFiles();
    }
    void answer(const std::string& name, const std::string& text) {
        peer.send("vx_control_rep:action=instrumentation_profile;instrProfile=" + name +
                  ";size=" + std::to_string(text.size()) + ";lmd=1;\n" + text);
    }
    // The names asked for since the last call, each with a blank.
    std::string asked() {
        controlConnectionSendBuffer("end\n", 4);
        std::string names;
        const std::string request =
            "vx_control_req:action=send_instrumentation_profile;status=running;instrProfile=";
        for (const std::string& line : peer.readLinesUpTo("end"))
            if (line.starts_with(request)) names += line.substr(request.size()) + " ";
        return names;
    }
    std::string held() const {
        const char* text = app->files.kywdInfo[55].content;
        return text ? text : "(none)";
    }
    bool parsed() const { return app->Server.rehashRequested != 0; }
};

std::string group(const std::string& name, const std::string& text, int lmd = 1) {
    return "instrProfile=" + name + ";lmd=" + std::to_string(lmd) + ";size=" + std::to_string(text.size()) +
           ";";
}

TEST_F(InstrProfiles, SeveralBecomeOneTextAndOnlyWhatChangedIsAskedFor) {
    const std::string both = "numInstrProfile=2;" + group("web", kWebText) + group("shop\\db", kDbText);
    answer("web", kWebText);
    answer("db", kDbText);  // the collector may name it by its last element
    start(both);
    EXPECT_EQ(asked(), "web shop\\db ");
    EXPECT_EQ(held(), kWebText + "\n" + kDbText);
    EXPECT_TRUE(getMethodPropFromMethodName("web.get") && getMethodPropFromMethodName("db.query"));
    EXPECT_EQ(cached("db"), kDbText);

    start(both);
    EXPECT_TRUE(parsed());
    modify(both);
    EXPECT_FALSE(parsed());
    EXPECT_EQ(asked(), "");

    answer("web", "m|web|put|1|1|\n");
    modify("numInstrProfile=2;" + group("shop\\db", kDbText) + group("web", "m|web|put|1|1|\n"));
    EXPECT_EQ(asked(), "web ");
    EXPECT_EQ(held(), kDbText + "m|web|put|1|1|\n");
    EXPECT_TRUE(parsed());

    modify("numInstrProfile=1;" + group("shop\\db", kDbText));  // one is taken away
    EXPECT_EQ(asked(), "");
    EXPECT_EQ(held(), kDbText);
    EXPECT_STREQ(app->Server.warnings, "");
}

TEST_F(InstrProfiles, AMissingOneIsAWarningAndDoesNotStopTheOthers) {
    const std::string failed = "vx_control_rep:action=FailedInstrumentationProfile - web\n";
    peer.send(failed + failed);
    answer("db", kDbText);
    start("numInstrProfile=2;" + group("web", kWebText) + group("db", kDbText));
    EXPECT_EQ(asked(), "web web db ");
    EXPECT_EQ(held(), kDbText);
    EXPECT_STREQ(app->Server.warnings, "Failed to get response of 'web' file base keyword");

    peer.send(failed);  // asked for again, and had at the second attempt
    answer("web", kWebText);
    const std::string both = kWebText + "\n" + kDbText;
    for (const int date : {1, 2}) {
        start("numInstrProfile=2;" + group("web", kWebText, date) + group("db", kDbText));
        EXPECT_EQ(asked(), "web web ");
        EXPECT_EQ(held(), both);
        EXPECT_TRUE(parsed());
        peer.send(failed + failed);  // what is held of it serves
    }
}

TEST_F(InstrProfiles, ALineIsTakenAsFarAsItGoes) {
    const std::string textA = "m|c|a|1|1\n", textB = "m|c|b|1|1\n", a = group("a", textA);
    const struct {
        std::string fields, asked, held;
    } rows[] = {
        {"numInstrProfile=2;size=10;instrProfile=a;lmd=1;lmd=1;size=10;instrProfile=b;", "a b ",
         textA + textB},
        {"numInstrProfile=1;instrProfile=x;" + a, "a ", textA},  // the last of two names
        {"numInstrProfile=1;" + a + group("b", textB), "a ", textA},
        {"numInstrProfile=3;" + a, "a ", "(none)"},
        {"numInstrProfile=1000000;" + a, "a ", "(none)"},
        {"numInstrProfile=-1;" + a, "", "(none)"},
        {a, "", "(none)"},
        {"numInstrProfile=1;instrProfile=a;lmd=1;size=0;", "", "(none)"},
        {"numInstrProfile=1;instrProfile=a;lmd=1;size=99999999999;", "", "(none)"},
    };
    for (const auto& row : rows) {
        TearDown();
        SetUp();
        answer("a", textA);
        answer("b", textB);
        start(row.fields);
        EXPECT_EQ(asked(), row.asked) << row.fields;
        EXPECT_EQ(held(), row.held) << row.fields;
    }
}

}  // namespace
}  // namespace vx::test
