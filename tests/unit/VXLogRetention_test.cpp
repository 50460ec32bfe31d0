#include "commonlibc/VXLogRetention.h"

#include <chrono>
#include <ctime>
#include <set>
#include <string>

#include "tests/support/fake_clock.h"
#include "tests/support/home_fixture.h"

namespace vx {
namespace {

using Names = std::set<std::string>;

class LogRetention : public test::HomeFixture {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        HomeFixture::SetUp();
        std::filesystem::create_directories(home() + "/logs");
    }
    void file(const std::string& name) { std::ofstream(home() + "/logs/" + name) << "x"; }
    Names left() const {
        Names names;
        for (const auto& entry : std::filesystem::directory_iterator(home() + "/logs"))
            names.insert(entry.path().filename().string());
        return names;
    }

    test::FakeClock clock{1709287200000};  // 2024-03-01 10:00 UTC, behind a leap day
};

TEST_F(LogRetention, StepsBackThroughTheCalendar) {
    for (const auto& [days, date] :
         {std::pair(0, 20240301), {1, 20240229}, {61, 20231231}, {367, 20230228}, {2000000000, 19240326}})
        EXPECT_EQ(get_Previous_Date(days), date) << days;
}

TEST_F(LogRetention, RemovesTraceFilesOfTheLimitAndBeforeAndNothingElse) {
    app->VXBCISetting.logRetentionDays = 0;  // counts as 7: up to 2024-02-23
    const Names kept = {"vx_trace_ProxyName_DotNetAgent_20240224000000_9.log_0",
                        "vx_trace_p_20240301000000_9.log_1",
                        "readme.txt",
                        "notes_of_an_old_day.txt",
                        "vx_trace_p_Error_9.log_0",
                        "x_y_2020_9.log_0",
                        "folder_20200101000000_9_0"};
    std::filesystem::create_directory(home() + "/logs/folder_20200101000000_9_0");
    for (const std::string& name : kept) file(name);  // not over the folder
    for (const char* name : {"vx_trace_a_b_20200101000000_9.log_0", "vx_trace_a_20240223235959_9.log_1"})
        file(name);
    vx_check_log_file();
    EXPECT_EQ(left(), kept);

    app->VXBCISetting.logRetentionDays = 1;
    vx_check_log_file();
    EXPECT_EQ(left().size(), kept.size() - 1);
}

TEST_F(LogRetention, KeepsTheNewestCrashDumps) {
    const auto now = std::filesystem::file_time_type::clock::now();
    file("example_notes.txt");
    for (int i = 0; i < 5; ++i) {
        const std::string name = "example_" + std::to_string(902 - i) + ".txt";
        file(name);
        std::filesystem::last_write_time(home() + "/logs/" + name, now - std::chrono::hours(i ^ 1));
    }
    vxDropOldCrashDumps((home() + "/logs").c_str(), 3);
    EXPECT_EQ(left(), (Names{"example_902.txt", "example_901.txt", "example_899.txt", "example_notes.txt"}));
}

}  // namespace
}  // namespace vx
