#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tools/agent/vxagent_follow.h"
#include "tools/agent/vxagent_log_line.h"

namespace vx::agent {
namespace {

constexpr std::int64_t kNineOClock = 1795248306000000;  // 2026-11-21 08:05:06 UTC

std::string logLine(const char* time, const char* request, const char* rest) {
    return std::string("10.0.0.1 - bob [") + time + "] " + request + rest;
}
const std::string kGood = logLine("21/Nov/2026:09:05:06 +0100", "\"GET /cart?id=1 HTTP/1.1\"",
                                  " 200 512 \"-\" \"curl/7 [x] \\\" 1.5\" 0.125");

// Request, status, end as its distance to nine o'clock, duration; then headers and the servers that were
// asked.
std::string textOf(const LogLine& line) {
    std::string text = std::string(line.method) + "|" + std::string(line.url) + "|" +
                       std::to_string(line.status) + "|" + std::to_string(line.endUs - kNineOClock) + "|" +
                       std::to_string(line.durationUs);
    for (const LogHeader& header : line.headers)
        text += (header.ofResponse ? ";<" : ";") + header.name + "=" + plainText(header.value);
    for (std::size_t i = 0; i < line.upstreamCount; ++i)
        text += ";" + std::string(line.upstreams[i].address) + " " +
                std::to_string(line.upstreams[i].status) + " " + std::to_string(line.upstreams[i].durationUs);
    return text;
}

TEST(LogLine, GivesARequestItsHeadersAndTheServersThatWereAsked) {
    const char *const nine = "21/Nov/2026:09:05:06 +0100", *const get = "\"GET / HTTP/1.1\"";
    const auto expectAs = [](const std::string& text, const std::string& request) {
        LogLine line;
        EXPECT_TRUE(parseLogLine(text, line)) << text;
        EXPECT_EQ(textOf(line), request);
    };
    expectAs(kGood, "GET|/cart?id=1|200|0|125000;User-Agent=curl/7 [x] \" 1.5");
    expectAs(logLine("21/Nov/2026:03:35:06 -0430", get, " 304 - 0.0000019"), "GET|/|304|0|1");
    expectAs(logLine("29/Feb/2024:00:00:00 +0000", get, " 200 1 0.5"),
             "GET|/|200|" + std::to_string(1709164800000000 - kNineOClock) + "|500000");
    expectAs(logLine(nine, "\"GET /\\\"a b\\\\\"", " 400 1 0.001"), "GET|/\\\"a b\\\\|400|0|1000");
    expectAs(logLine(nine, "\"-\"", " 408 0 \"-\" \"-\" 60.000\r"), "|-|408|0|60000000");
    expectAs(logLine(nine, "\"\"", " 400 0 0.000"), "||400|0|0");
    const char* const rows[][2] = {
        // what stands behind the request, and what is made of it
        {"12 \"http://a/\" \"curl/7 \\x22x\\\" y\" http_host=\"h\" sent_http_content_type=\"text/html\" "
         "http_x_y=\"\" http_z=\"-\" 0",
         ";Referer=http://a/;User-Agent=curl/7 \"x\" y;Host=h;<Content-Type=text/html"},
        {"12 \"-\" \"x\\x4\" http_host=h 0", ";User-Agent=xx4;Host=h"},
        {"12 0.1 0.2 0", ""},  // times of another format
        {"1 \"-\" upstream_response_time=\"0.001, 0.020 : 0.003\" upstream_status=\"502, 200 : 404\" "
         "upstream_addr=\"a:1, unix:/run/b : [::1]:80\" 0",
         ";a:1 502 1000;unix:/run/b 200 20000;[::1]:80 404 3000"},
        {"1 upstream_addr=\"-\" upstream_status=\"-\" upstream_response_time=\"-\" 0", ""},
        {"1 upstream_addr=a:1 upstream_status=- upstream_response_time=- 0", ";a:1 502 0"},
        {"1 upstream_status=\"200\" other=\"x\" =y 0", ""},
        {"1 upstream_addr=\"a, a, a, a, a, a, a, a, a\" upstream_status=\"200, 200\" 0",
         ";a 200 0;a 200 0;a 502 0;a 502 0;a 502 0;a 502 0;a 502 0;a 502 0"},  // all that fit
    };
    for (const auto& [rest, made] : rows)
        expectAs(logLine(nine, get, (" 200 " + std::string(rest)).c_str()),
                 "GET|/|200|0|0" + std::string(made));
    LogLine line;
    EXPECT_EQ(methodNameOf(line, "nginx"), "nginx.OTHER");
    line.endUs = 5000000;
    EXPECT_EQ(endOf(line, 5250000), 5250000) << "the time of reading, within the line's second";
    EXPECT_EQ(endOf(line, 6000000), 5999999);
    EXPECT_EQ(endOf(line, 4000000), 5000000);
}

TEST(LogLine, ThatIsBrokenIsRefusedAndChangesNothing) {
    std::vector<std::string> lines = {
        kGood + " -",
        kGood + " 1.5.5",
        kGood + " 99999999999999999999",
        logLine("31/Nov/2026:09:05:06 +0100", "\"GET / HTTP/1.1\"", " 200 1 0.1"),
        logLine("21/Foo/2026:09:05:06 +0100", "\"GET / HTTP/1.1\"", " 200 1 0.1"),
        logLine("21/Nov/2026:09:05:06", "\"GET / HTTP/1.1\"", " 200 1 0.1"),
        logLine("21/Nov/2026:09:05:06 +0100", "GET / HTTP/1.1", " 200 1 0.1"),
        logLine("21/Nov/2026:09:05:06 +0100", "\"GET / HTTP/1.1\"", " -20 1 0.1"),
    };
    for (std::size_t cut = 0; cut + 5 < kGood.size(); ++cut) lines.push_back(kGood.substr(0, cut));
    for (const std::string& text : lines) {
        LogLine line;
        line.status = 7;
        EXPECT_FALSE(parseLogLine(text, line)) << text;
        EXPECT_EQ(line.status, 7) << text;
    }
}

class FollowedFile : public testing::Test {
protected:
    void write(const std::string& text, std::ios::openmode mode = std::ios::app) const {
        std::ofstream(path, mode) << text;
    }
    static std::vector<std::string> all(LineFollower& follower) {
        std::vector<std::string> lines;
        for (std::string line; follower.next(line);) lines.push_back(line);
        return lines;
    }
    using Lines = std::vector<std::string>;

    test::TempDir dir;
    const std::string path = dir / "access.log";
};

TEST_F(FollowedFile, GivesLinesOnceTheyAreWholeFromWhereItIsTold) {
    LineFollower early(path, LineFollower::From::kEnd);
    EXPECT_EQ(all(early), Lines{});
    write("old\nol");
    LineFollower fromEnd(path, LineFollower::From::kEnd), fromStart(path, LineFollower::From::kStart);
    EXPECT_EQ(all(early), Lines{"old"});
    write("d\n\nnew\n");
    EXPECT_EQ(all(early), (Lines{"old", "", "new"}));
    EXPECT_EQ(all(fromStart), (Lines{"old", "old", "", "new"}));
    EXPECT_EQ(all(fromEnd), (Lines{"d", "", "new"}));
    write(std::string(3 * kLogLineMax, 'x'));
    EXPECT_EQ(all(early), Lines{});
    write("\nnext\n");
    EXPECT_EQ(all(early), Lines{"next"}) << "a line beyond the limit is passed over";
}

TEST_F(FollowedFile, LeavesARotatedFileAfterASecondLook) {
    write("one\n");
    LineFollower follower(path, LineFollower::From::kStart);
    EXPECT_EQ(all(follower), Lines{"one"});
    std::ofstream former(path, std::ios::app);
    std::filesystem::rename(path, dir / "access.log.1");
    EXPECT_EQ(all(follower), Lines{});
    write("new one\n");
    EXPECT_EQ(all(follower), Lines{});
    former << "late\npart" << std::flush;
    EXPECT_EQ(all(follower), (Lines{"late", "new one"}));
    write("new two\npart");
    EXPECT_EQ(all(follower), Lines{"new two"});
    write("1\n", std::ios::trunc);
    EXPECT_EQ(all(follower), Lines{"1"}) << "it was cut short";
}

}  // namespace
}  // namespace vx::agent
