#include "tools/collector/collector_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/temp_dir.h"
#include "tools/collector/collector_orders.h"
#include "tools/collector/collector_out.h"
#include "tools/collector/collector_protocol.h"

namespace vx::collector {
namespace {

class Files : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(dir / "instrProfile");
        write("VXEntryPointsFile", "entry\n");
        write("instrProfile/Shop.txt", "profile");
        ASSERT_TRUE(store.open(error)) << error;
        told = store.present();
    }
    // Dates are set, so that a change does not depend on the clock's grain.
    void write(const std::string& name, const std::string& text) {
        const std::string path = dir.path() + "/" + name;
        std::ofstream(path, std::ios::trunc) << text;
        const timespec date{1000000 + ++writes, 0};
        const timespec times[] = {date, date};
        ::utimensat(AT_FDCWD, path.c_str(), times, 0);
    }
    std::string changed() { return changedFields(told, store.present()); }
    std::string answer(FileKind kind, const char* name) { return *store.answer(kind, name); }

    test::TempDir dir;
    int writes = 0;
    FileStore store{dir.path()};
    FileSet told;
    std::string error;
};

TEST_F(Files, ChangesCountOnceTwoLooksHaveSeenTheSame) {
    EXPECT_EQ(startFields(store.present()),
              "VXEntryPointsFile=VXEntryPointsFile|6|1000001000000;numInstrProfile=1;instrProfile=Shop.txt;"
              "lmd=1000002000000;size=7;");
    write("VXEntryPointsFile", "longer\n");
    store.look();
    EXPECT_EQ(changed(), "");
    write("VXEntryPointsFile", "still being written\n");
    store.look();
    EXPECT_EQ(changed(), "");
    store.look();
    EXPECT_EQ(changed(), "VXEntryPointsFile=VXEntryPointsFile|20|1000004000000;");

    write("BTRuleConfig", "x");
    write("instrProfile/Two", "y");
    std::filesystem::remove(dir.path() + "/VXEntryPointsFile");
    store.look();
    store.look();
    EXPECT_EQ(changed(),
              "BTRuleConfig=BTRuleConfig|1|1000005000000;VXEntryPointsFile=NA;numInstrProfile=2;"
              "instrProfile=Shop.txt;lmd=1000002000000;size=7;instrProfile=Two;lmd=1000006000000;size=1;");
    std::filesystem::remove_all(dir.path() + "/instrProfile");
    store.look();
    store.look();
    EXPECT_NE(changed().find("numInstrProfile=0;instrProfile=NA;"), std::string::npos);
    std::filesystem::rename(dir.path(), dir.path() + ".away");
    told = store.present();
    store.look();
    store.look();
    EXPECT_EQ(changed(), "");  // a folder that cannot be read is no order to drop everything
    std::filesystem::rename(dir.path() + ".away", dir.path());
}

TEST_F(Files, HandOutNothingButWhatALookHasFound) {
    write("not-a-keyword.txt", "x");
    write(".hidden", "x");
    write("instrProfile/a;b", "x");
    ASSERT_EQ(::mkfifo((dir.path() + "/vxMethodMonFile").c_str(), 0600), 0);
    std::filesystem::resize_file(dir.path() + "/instrProfile/Shop.txt", kMaxFileSize + 1);
    store.look();
    store.look();
    EXPECT_EQ(store.passedOver().size(), 4u);
    EXPECT_EQ(startFields(store.present()), "VXEntryPointsFile=VXEntryPointsFile|6|1000001000000;");
    for (const char* name : {"../secret", "/etc/passwd", "", ".", "instrProfile/Shop.txt", ".hidden", "gone",
                             "vxMethodMonFile"}) {
        EXPECT_EQ(answer(FileKind::kKeyword, name),
                  "vx_control_rep:action=Failed" + std::string(name) + " - " + name + "\n");
        EXPECT_EQ(answer(FileKind::kProfile, name),
                  "vx_control_rep:action=FailedInstrumentationProfile - " + std::string(name) + "\n");
    }
    const auto first = store.answer(FileKind::kKeyword, "VXEntryPointsFile");
    EXPECT_EQ(store.answer(FileKind::kKeyword, "VXEntryPointsFile"), first) << "one for all instances";
    write("VXEntryPointsFile", "other\n");
    EXPECT_NE(store.answer(FileKind::kKeyword, "VXEntryPointsFile"), first);
    std::filesystem::remove(dir.path() + "/VXEntryPointsFile");
    EXPECT_TRUE(answer(FileKind::kKeyword, "VXEntryPointsFile").starts_with("vx_control_rep:action=Failed"));
}

TEST(OrdersOfAnInstance, GoOutOneAtATimeAndAnAnswerThatNeverComesIsGivenUp) {
    Orders orders;
    Orders::Time now{};
    std::string line;
    orders.add("start", true);
    orders.add("dump", false);
    orders.add("modify", true);
    orders.add("stop", true);
    ASSERT_TRUE(orders.next(line, now));
    EXPECT_EQ(line, "start");
    orders.heard("vx_control_req:action=send_file;keyword=x;", now + kAnswerWait / 2);
    EXPECT_FALSE(orders.next(line, now + kAnswerWait));
    orders.heard("vx_control_rep:action=start_instrumentation;status=starting;result=Ok;", now);
    ASSERT_TRUE(orders.next(line, now));
    EXPECT_EQ(line, "dump");
    ASSERT_TRUE(orders.next(line, now));
    EXPECT_EQ(line, "modify");
    EXPECT_FALSE(orders.next(line, now));
    ASSERT_TRUE(orders.next(line, now + kAnswerWait));
    EXPECT_EQ(line, "stop");
    EXPECT_FALSE(orders.idle());
}

TEST(OutQueueOfAConnection, RefusesWhatNobodyReads) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    OutQueue queue;
    const auto file = std::make_shared<const std::string>(std::string(kMaxFilesOut / 8, 'f'));
    ASSERT_TRUE(queue.addLine("line\n"));
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(queue.addFile(file));
    EXPECT_FALSE(queue.addFile(file));
    ASSERT_TRUE(queue.addLine(std::string(kMaxLinesOut - 5, 'l')));
    EXPECT_FALSE(queue.addLine("l"));
    ASSERT_TRUE(queue.flush(ends[0]));
    EXPECT_FALSE(queue.empty()) << "nobody reads";
    ::close(ends[1]);
    EXPECT_FALSE(queue.flush(ends[0]));
    ::close(ends[0]);
}

}  // namespace
}  // namespace vx::collector
