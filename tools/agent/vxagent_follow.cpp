#include "tools/agent/vxagent_follow.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace vx::agent {

namespace {

constexpr std::size_t kReadSize = 65536;

}  // namespace

LineFollower::LineFollower(std::string path, From from) : path_(std::move(path)) {
    open();
    if (fd_ >= 0 && from == From::kEnd) lseek(fd_, 0, SEEK_END);
}

LineFollower::~LineFollower() {
    if (fd_ >= 0) close(fd_);
}

bool LineFollower::next(std::string& line) {
    if (fd_ < 0) open();
    for (;;) {
        if (takeLine(line)) return true;
        if (fd_ < 0) return false;
        if (!readMore() && !changedFile()) return false;
    }
}

bool LineFollower::takeLine(std::string& line) {
    for (;;) {
        const std::size_t end = held_.find('\n', at_);
        if (end == std::string::npos) break;
        const bool whole = !std::exchange(skipping_, false);
        line.assign(held_, at_, end - at_);
        at_ = end + 1;
        if (whole) return true;
    }
    held_.erase(0, std::exchange(at_, 0));
    if (held_.size() > kLogLineMax) {
        skipping_ = true;
        held_.clear();
    }
    return false;
}

bool LineFollower::readMore() {
    char buffer[kReadSize];
    const ssize_t count = read(fd_, buffer, sizeof(buffer));
    if (count <= 0) return false;
    held_.append(buffer, static_cast<std::size_t>(count));
    return true;
}

void LineFollower::open() {
    fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    leaving_ = false;
}

void LineFollower::reopen() {
    close(fd_);
    held_.clear();
    at_ = 0;
    skipping_ = false;
    open();
}

// At the end of what there is to read: is this still the file of that name, and still as long? True when
// it was opened anew.
bool LineFollower::changedFile() {
    struct stat now {
    }, named{};
    if (fstat(fd_, &now) != 0) return false;
    const bool gone = stat(path_.c_str(), &named) != 0;
    const bool other = !gone && (named.st_ino != now.st_ino || named.st_dev != now.st_dev);
    if (other && !std::exchange(leaving_, true)) return false;  // its writer may not have changed over yet
    if (!other && now.st_size >= lseek(fd_, 0, SEEK_CUR)) return false;
    reopen();
    return true;
}

}  // namespace vx::agent
