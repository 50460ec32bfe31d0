#include "commonlibc/VXLogRetention.h"

#include <apr_file_info.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/platform/vx_platform_crash.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::size_t kPathSize = 4096;
constexpr int kMaxDays = 36500;
constexpr std::size_t kStampDigits = 14;      // yyyymmddhhmmss
constexpr std::int64_t kTimeOfDay = 1000000;  // hhmmss behind the day
constexpr std::size_t kFixedTokens = 3;       // what a name has beside the names of process and pool
constexpr int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

bool isLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

void stepBack(VXCalendar& day) {
    if (--day.day > 0) return;
    if (--day.month == 0) {
        day.month = 12;
        --day.year;
    }
    day.day = kMonthDays[day.month - 1] + (day.month == 2 && isLeapYear(day.year) ? 1 : 0);
}

// Calls visit(name, entry) for each regular file. False when the folder cannot be opened.
template <class Visit>
bool eachFile(const char* folder, Visit visit) {
    const VXPool pool(nullptr);
    apr_dir_t* opened = nullptr;
    if (apr_dir_open(&opened, folder, pool.get()) != APR_SUCCESS) return false;
    apr_finfo_t entry{};
    while (apr_dir_read(&entry, APR_FINFO_NAME | APR_FINFO_TYPE | APR_FINFO_MTIME, opened) == APR_SUCCESS) {
        if (entry.filetype == APR_REG) visit(entry.name, entry);
    }
    apr_dir_close(opened);
    return true;
}

// Day of the time stamp in a trace file's name, -1 when the name has none. `tokens` gets the count.
std::int64_t dayOfName(const std::string& name, std::size_t& tokens) {
    std::vector<std::string_view> parts;
    for (std::size_t from = 0; from < name.size();) {
        const std::size_t to = std::min(name.find('_', from), name.size());
        if (to > from) parts.push_back(std::string_view(name).substr(from, to - from));
        from = to + 1;
    }
    tokens = parts.size();
    if (tokens <= kFixedTokens) return -1;
    const std::string_view stamp = parts[tokens - kFixedTokens];
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(stamp.data(), stamp.data() + stamp.size(), number);
    const bool whole = error == std::errc() && end == stamp.data() + stamp.size();
    return whole && stamp.size() == kStampDigits ? number / kTimeOfDay : -1;
}

// Prefix, digits, suffix: what the dump writes, and no note that somebody left beside it.
bool isCrashDump(std::string_view name) {
    const std::string_view prefix(kCrashFilePrefix);
    const std::string_view suffix(kCrashFileSuffix);
    if (!name.starts_with(prefix) || !name.ends_with(suffix)) return false;
    if (name.size() <= prefix.size() + suffix.size()) return false;
    const std::string_view number = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
    return number.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace

std::int64_t get_Previous_Date(int days) {
    VXCalendar day{};
    if (!vx_platform_local_time(vxlb_now_us(), &day)) return 0;
    for (int step = 0; step < std::min(days, kMaxDays); ++step) stepBack(day);
    return (std::int64_t{day.year} * 100 + day.month) * 100 + day.day;
}

void vx_check_log_file() {
    const int asked = vxCurrent()->VXBCISetting.logRetentionDays;
    const std::int64_t limit = get_Previous_Date(asked > 0 ? asked : kDefaultRetentionDays);
    char folder[kPathSize];
    vx_path_join(folder, sizeof(folder), getVXHome(), "logs");
    std::vector<std::string> old;  // removed behind the walk, which they would upset
    const bool opened = eachFile(folder, [&](const char* name, const apr_finfo_t&) {
        std::size_t tokens = 0;
        const std::int64_t day = dayOfName(name, tokens);
        if (day < 0) {
            VX_TRACE(4, kControlThread, kInfo, "not a log file and %d", static_cast<int>(tokens));
        } else if (limit >= day) {
            old.emplace_back(name);
        }
    });
    if (!opened) VX_TRACE(1, kControlThread, kError, "Log Directory unable to open");
    for (const std::string& name : old) {
        char path[kPathSize];
        vx_path_join(path, sizeof(path), folder, name.c_str());
        if (std::remove(path) == 0) VX_TRACE(4, kControlThread, kInfo, "removed file name :%s", name.c_str());
    }
}

void vxDropOldCrashDumps(const char* folder, int kept) {
    struct Dump {
        apr_time_t written;
        std::string name;
    };
    std::vector<Dump> dumps;
    eachFile(folder, [&](const char* name, const apr_finfo_t& entry) {
        if (isCrashDump(name)) dumps.push_back({entry.mtime, name});
    });
    std::sort(dumps.begin(), dumps.end(), [](const Dump& a, const Dump& b) { return a.written > b.written; });
    for (std::size_t i = static_cast<std::size_t>(kept); i < dumps.size(); ++i) {
        char path[kPathSize];
        vx_path_join(path, sizeof(path), folder, dumps[i].name.c_str());
        std::remove(path);
    }
}

}  // namespace vx
