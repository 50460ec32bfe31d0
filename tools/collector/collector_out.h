// What waits to go out on one connection: lines, and file answers that several connections share.
//
// Limits    kMaxLinesOut bytes of lines and kMaxFilesOut bytes of files wait; one more is refused. A flush
// sends
//           at most kSendPerTurn bytes, so that a large file never keeps the others waiting.
// Threads   One.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string>

namespace vx::collector {

inline constexpr std::size_t kMaxLinesOut = 1024 * 1024;
inline constexpr std::size_t kMaxFilesOut = 256 * 1024 * 1024;
inline constexpr std::size_t kSendPerTurn = 1024 * 1024;

class OutQueue {
public:
    bool empty() const { return pieces_.empty(); }
    // False when too much waits already: the peer does not read.
    bool addLine(std::string text);
    bool addFile(std::shared_ptr<const std::string> text);
    // Sends what the socket takes now. False when the connection is lost.
    bool flush(int fd);

private:
    struct Piece {
        std::shared_ptr<const std::string> text;
        std::size_t* waiting;  // the sum that it counts into
    };
    bool add(std::shared_ptr<const std::string> text, std::size_t& waiting, std::size_t most);

    std::deque<Piece> pieces_;
    std::size_t at_ = 0;  // sent bytes of the first piece
    std::size_t lines_ = 0, files_ = 0;
};

}  // namespace vx::collector
