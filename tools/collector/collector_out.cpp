#include "tools/collector/collector_out.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace vx::collector {

bool OutQueue::addLine(std::string text) {
    return add(std::make_shared<const std::string>(std::move(text)), lines_, kMaxLinesOut);
}

bool OutQueue::addFile(std::shared_ptr<const std::string> text) {
    return add(std::move(text), files_, kMaxFilesOut);
}

bool OutQueue::add(std::shared_ptr<const std::string> text, std::size_t& waiting, std::size_t most) {
    if (waiting + text->size() > most) return false;
    waiting += text->size();
    pieces_.push_back({std::move(text), &waiting});
    return true;
}

bool OutQueue::flush(int fd) {
    for (std::size_t turn = 0; !pieces_.empty() && turn < kSendPerTurn;) {
        const std::string& text = *pieces_.front().text;
        const ssize_t sent =
            ::send(fd, text.data() + at_, std::min(text.size() - at_, kSendPerTurn), MSG_NOSIGNAL);
        if (sent < 0) return errno == EAGAIN || errno == EINTR;
        at_ += static_cast<std::size_t>(sent);
        turn += static_cast<std::size_t>(sent);
        if (at_ < text.size()) continue;
        *pieces_.front().waiting -= text.size();
        pieces_.pop_front();
        at_ = 0;
    }
    return true;
}

}  // namespace vx::collector
