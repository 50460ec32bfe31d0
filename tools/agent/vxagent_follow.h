// Lines of a file that grows, is rotated and is cut short while it is read.
//
// A line counts once its newline is there. When the file's name leads to another file, the old one is read
// to its end, once more at the next call, and then the new one from its beginning. A file that became
// shorter is read from its beginning. A missing file is waited for.
//
// Limits    A line of more than kLogLineMax bytes is passed over.
// Threads   One.
#pragma once

#include <cstddef>
#include <string>

namespace vx::agent {

inline constexpr std::size_t kLogLineMax = 65536;

class LineFollower {
public:
    enum class From { kStart, kEnd };  // kEnd: only what is written from now on

    LineFollower(std::string path, From from);
    ~LineFollower();
    LineFollower(const LineFollower&) = delete;
    LineFollower& operator=(const LineFollower&) = delete;

    bool opened() const { return fd_ >= 0; }
    // The next whole line without its newline. False when there is none now.
    bool next(std::string& line);

private:
    bool takeLine(std::string& line);
    bool readMore();
    void open();
    void reopen();
    bool changedFile();

    const std::string path_;
    int fd_ = -1;
    std::string held_;
    std::size_t at_ = 0;  // start of the next line in held_
    bool skipping_ = false, leaving_ = false;
};

}  // namespace vx::agent
