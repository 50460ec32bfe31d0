#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/by_name.h"
#include "tools/agent/vxagent_follow.h"
#include "tools/agent/vxagent_log_line.h"

namespace vx::agent {
namespace {

using test::byName;

constexpr std::int64_t kNineOClock = 1795248306000000;  // 2026-11-21 08:05:06 UTC

std::string logLine(const char* time, const char* request, const char* rest) {
    return std::string("10.0.0.1 - bob [") + time + "] " + request + rest;
}
const std::string kGood = logLine("21/Nov/2026:09:05:06 +0100", "\"GET /cart?id=1 HTTP/1.1\"",
                                  " 200 512 \"-\" \"curl/7 [x] \\\" 1.5\" 0.125");

struct Good {
    const char* name;
    std::string line;
    const char *method, *url;
    int status;
    std::int64_t endUs, durationUs;
};
class GoodLine : public testing::TestWithParam<Good> {};

TEST_P(GoodLine, GivesARequest) {
    LogLine line;
    ASSERT_TRUE(parseLogLine(GetParam().line, line));
    EXPECT_EQ(line.method, GetParam().method);
    EXPECT_EQ(line.url, GetParam().url);
    EXPECT_EQ(line.status, GetParam().status);
    EXPECT_EQ(line.endUs, GetParam().endUs);
    EXPECT_EQ(line.durationUs, GetParam().durationUs);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, GoodLine,
    testing::ValuesIn<Good>({
        {"combined", kGood, "GET", "/cart?id=1", 200, kNineOClock, 125000},
        {"without_referer_and_agent",
         logLine("21/Nov/2026:08:05:06 +0000", "\"POST /a HTTP/2.0\"", " 404 0 2"), "POST", "/a", 404,
         kNineOClock, 2000000},
        {"west_of_greenwich", logLine("21/Nov/2026:03:35:06 -0430", "\"GET / HTTP/1.0\"", " 304 - 0.0000019"),
         "GET", "/", 304, kNineOClock, 1},
        {"leap_day", logLine("29/Feb/2024:00:00:00 +0000", "\"GET / HTTP/1.1\"", " 200 1 0.5"), "GET", "/",
         200, 1709164800000000, 500000},
        {"blanks_in_the_url", logLine("21/Nov/2026:09:05:06 +0100", "\"GET /a b c HTTP/1.1\"", " 400 1 0.0"),
         "GET", "/a b c", 400, kNineOClock, 0},
        {"quotes_in_the_url", logLine("21/Nov/2026:09:05:06 +0100", "\"GET /\\\"x\\\\\"", " 400 1 0.001"),
         "GET", "/\\\"x\\\\", 400, kNineOClock, 1000},
        {"no_request_line", logLine("21/Nov/2026:09:05:06 +0100", "\"-\"", " 408 0 \"-\" \"-\" 60.000\r"), "",
         "-", 408, kNineOClock, 60000000},
        {"an_empty_request_line", logLine("21/Nov/2026:09:05:06 +0100", "\"\"", " 400 0 0.000"), "", "", 400,
         kNineOClock, 0},
    }),
    byName);

TEST(BrokenLine, IsRefusedAndChangesNothing) {
    std::vector<std::string> lines = {
        "",
        "#comment",
        kGood.substr(0, kGood.size() - 6),  // no duration
        kGood + "x",
        kGood + " -",
        kGood + " -1",
        kGood + " 1.5.5",
        kGood + " 99999999999999999999",
        logLine("31/Nov/2026:09:05:06 +0100", "\"GET / HTTP/1.1\"", " 200 1 0.1"),
        logLine("21/Foo/2026:09:05:06 +0100", "\"GET / HTTP/1.1\"", " 200 1 0.1"),
        logLine("21/Nov/2026:24:05:06 +0100", "\"GET / HTTP/1.1\"", " 200 1 0.1"),
        logLine("21/Nov/2026:09:05:06", "\"GET / HTTP/1.1\"", " 200 1 0.1"),
        logLine("21/Nov/2026:09:05:06 +0100", "GET / HTTP/1.1", " 200 1 0.1"),
        logLine("21/Nov/2026:09:05:06 +0100", "\"GET / HTTP/1.1", " 200 1 0.1"),
        logLine("21/Nov/2026:09:05:06 +0100", "\"GET / HTTP/1.1\"", " 20x 1 0.1"),
        logLine("21/Nov/2026:09:05:06 +0100", "\"GET / HTTP/1.1\"", " -20 1 0.1"),
        logLine("21/Nov/2026:09:05:06 +0100", "\"GET / HTTP/1.1\"", ""),
    };
    for (std::size_t cut = 0; cut + 5 < kGood.size(); ++cut) lines.push_back(kGood.substr(0, cut));
    for (const std::string& text : lines) {
        LogLine line;
        line.status = 7;
        EXPECT_FALSE(parseLogLine(text, line)) << text;
        EXPECT_EQ(line.status, 7) << text;
    }
}

struct UpstreamCase {
    const char* name;
    const char* fields;
    std::vector<std::string> servers;  // address status microseconds
};
class UpstreamFields : public testing::TestWithParam<UpstreamCase> {};

TEST_P(UpstreamFields, GiveTheServersThatWereAsked) {
    LogLine line;
    const std::string rest = std::string(" 200 512 \"-\" ") + GetParam().fields + " 0.125";
    const std::string text = logLine("21/Nov/2026:09:05:06 +0100", "\"GET / HTTP/1.1\"", rest.c_str());
    ASSERT_TRUE(parseLogLine(text, line));  // whose views are into the text
    EXPECT_EQ(line.durationUs, 125000);
    std::vector<std::string> servers;
    for (std::size_t i = 0; i < line.upstreamCount; ++i)
        servers.push_back(std::string(line.upstreams[i].address) + " " +
                          std::to_string(line.upstreams[i].status) + " " +
                          std::to_string(line.upstreams[i].durationUs));
    EXPECT_EQ(servers, GetParam().servers);
}

INSTANTIATE_TEST_SUITE_P(
    Logs, UpstreamFields,
    testing::ValuesIn<UpstreamCase>({
        {"one",
         "upstream_addr=\"10.0.0.1:80\" upstream_status=\"200\" upstream_response_time=\"0.120\"",
         {"10.0.0.1:80 200 120000"}},
        {"retried_and_redirected",
         "upstream_response_time=\"0.001, 0.020 : 0.003\" upstream_status=\"502, 200 : 404\" "
         "upstream_addr=\"a:1, unix:/run/b : [::1]:80\"",
         {"a:1 502 1000", "unix:/run/b 200 20000", "[::1]:80 404 3000"}},
        {"none", "upstream_addr=\"-\" upstream_status=\"-\" upstream_response_time=\"-\"", {}},
        {"without_answer", "upstream_addr=a:1 upstream_status=- upstream_response_time=-", {"a:1 502 0"}},
        {"address_only", "upstream_addr=\"a:1, b:2\"", {"a:1 502 0", "b:2 502 0"}},
        {"no_address", "upstream_status=\"200\" other=\"x\" =y", {}},
        {"more_than_there_is_room_for",
         "upstream_addr=\"a, a, a, a, a, a, a, a, a\" upstream_status=\"200, 200\"",
         {"a 200 0", "a 200 0", "a 502 0", "a 502 0", "a 502 0", "a 502 0", "a 502 0", "a 502 0"}},
    }),
    byName);

TEST(LogLine, EndsAtTheTimeOfReadingWithinItsSecond) {
    LogLine line;
    line.endUs = 5000000;
    EXPECT_EQ(endOf(line, 5250000), 5250000);
    EXPECT_EQ(endOf(line, 6000000), 5999999);
    EXPECT_EQ(endOf(line, 4000000), 5000000);
}

TEST(LogLine, NamesOnlyMethodsOfHttp) {
    LogLine line;
    line.method = "DELETE";
    EXPECT_EQ(methodNameOf(line, "nginx"), "nginx.DELETE");
    line.method = "get";
    EXPECT_EQ(methodNameOf(line, "nginx"), "nginx.OTHER");
}

class FollowedFile : public testing::Test {
protected:
    void SetUp() override {
        folder = std::filesystem::temp_directory_path() / ("vxfollow" + std::to_string(getpid()));
        std::filesystem::create_directories(folder);
        path = folder / "access.log";
    }
    void TearDown() override { std::filesystem::remove_all(folder); }
    void write(const std::string& text, std::ios::openmode mode = std::ios::app) const {
        std::ofstream(path, mode) << text;
    }
    static std::vector<std::string> all(LineFollower& follower) {
        std::vector<std::string> lines;
        for (std::string line; follower.next(line);) lines.push_back(line);
        return lines;
    }
    using Lines = std::vector<std::string>;

    std::filesystem::path folder, path;
};

TEST_F(FollowedFile, GivesLinesOnceTheyAreWhole) {
    LineFollower follower(path, LineFollower::From::kEnd);
    EXPECT_EQ(all(follower), Lines{});
    write("one\ntw");
    EXPECT_EQ(all(follower), Lines{"one"});
    write("o\n\nthree\n");
    EXPECT_EQ(all(follower), (Lines{"two", "", "three"}));
}

TEST_F(FollowedFile, BeginsWhereItIsTold) {
    write("old\nol");
    LineFollower fromEnd(path, LineFollower::From::kEnd), fromStart(path, LineFollower::From::kStart);
    write("d\nnew\n");
    EXPECT_EQ(all(fromStart), (Lines{"old", "old", "new"}));
    EXPECT_EQ(all(fromEnd), (Lines{"d", "new"}));
}

TEST_F(FollowedFile, LeavesARotatedFileAfterASecondLook) {
    write("one\n");
    LineFollower follower(path, LineFollower::From::kStart);
    EXPECT_EQ(all(follower), Lines{"one"});
    std::ofstream former(path, std::ios::app);
    std::filesystem::rename(path, folder / "access.log.1");
    EXPECT_EQ(all(follower), Lines{});
    write("new one\n");
    EXPECT_EQ(all(follower), Lines{});
    former << "late\npart" << std::flush;
    EXPECT_EQ(all(follower), (Lines{"late", "new one"}));
    write("new two\n");
    EXPECT_EQ(all(follower), Lines{"new two"});
}

TEST_F(FollowedFile, BeginsAgainWhenItWasCutShort) {
    write("one\ntwo\npart");
    LineFollower follower(path, LineFollower::From::kStart);
    EXPECT_EQ(all(follower), (Lines{"one", "two"}));
    write("1\n", std::ios::trunc);
    EXPECT_EQ(all(follower), Lines{"1"});
}

TEST_F(FollowedFile, PassesOverALineBeyondItsLimit) {
    write(std::string(3 * kLogLineMax, 'x'));
    LineFollower follower(path, LineFollower::From::kStart);
    EXPECT_EQ(all(follower), Lines{});
    write("\nnext\n");
    EXPECT_EQ(all(follower), Lines{"next"});
}

}  // namespace
}  // namespace vx::agent
