#include "tools/agent/vxagent_udp.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <limits>

#include "commonlibc/vxlb_clock.h"
#include "tools/agent/vxagent.h"
namespace vx::agent {
namespace {

constexpr std::size_t kTextMax = 65536;
constexpr std::int64_t kLongestWaitMs = 60000;
constexpr std::string_view kTypes[] = {"Python", "php", "Dotnet", "Java", "go"};

VXWireText wire(const std::string& text) {
    return {text.data(), text.size()};
}

std::int16_t typeCode(std::string_view type) {
    const auto* const found = std::find(std::begin(kTypes), std::end(kTypes), type);
    return static_cast<std::int16_t>(found - std::begin(kTypes));
}

// The fields of a registration line. Two functions of one agent are two agents to the collector.
std::string tagsOf(const Identity& identity, const std::string& function) {
    return "appName=" + identity.application + ";tierName=" + identity.tier +
           ";vxAppServerHost=" + identity.server + ";agentName=" + function +
           ";agentType=" + identity.agentType + ";pid=" + std::to_string(identity.pid);
}

}  // namespace

std::int32_t numberBehind(std::string_view text, std::string_view name, std::int32_t otherwise) {
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) return otherwise;
    const std::size_t digits = text.find_first_not_of("\": =", at + name.size());
    if (digits == std::string_view::npos) return otherwise;
    std::int32_t value = otherwise;
    const auto done = std::from_chars(text.data() + digits, text.data() + text.size(), value);
    return done.ec == std::errc() ? value : otherwise;
}

UdpSession::UdpSession(const Identity& identity, std::string function, std::size_t queueBytes,
                       std::int64_t retryMaxMs)
    : Session(identity, queueBytes, retryMaxMs, VXAGENT_TCP),
      function_(std::move(function)),
      request_(std::to_string(identity.pid) + "-" + std::to_string(vxlb_now_us())),
      tags_(tagsOf(identity, function_)),
      agentType_(typeCode(identity.agentType)),
      datagram_(kDatagramSize) {
    backoff_.maxMs = retryMaxMs;
    backoff_.lot.seed(static_cast<unsigned>(vxlb_now_us() ^ identity.pid));
}

UdpSession::~UdpSession() {
    stop(0);
    if (fd_ >= 0) close(fd_);
}

void UdpSession::run() {
    for (;;) {
        nowMs_ = monotonicMs();
        step();
        if (ending()) break;
        waitForEvents();
    }
    setInstrumenting(false);
    controlUp_.store(false);
    dropRecords();
}

void UdpSession::step() {
    if (fd_ < 0 && (nowMs_ < askAtMs_ || !openSocket())) return;
    receive();
    if (fd_ >= 0 && nowMs_ >= askAtMs_) ask();
    if (fd_ >= 0 && instrumenting() && nowMs_ >= sendFromMs_) sendRecords();
}

bool UdpSession::openSocket() {
    askAtMs_ = nowMs_ + backoff_.pause();
    if (!resolveHost(identity_.host, identity_.port, address_)) return false;
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return false;
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) != 0) {
        close(fd_);
        fd_ = -1;
        return false;
    }
    askAtMs_ = nowMs_;
    return true;
}

// The function is nobody at the proxy any more; what belonged to its transaction goes.
void UdpSession::lose() {
    if (index_ != kWrapIndexUnknown) counters_.reconnects.fetch_add(1);
    index_ = kWrapIndexUnknown;
    unanswered_ = 0;
    full_ = false;
    setInstrumenting(false);
    controlUp_.store(false);
    dropRecords();
    close(fd_);
    fd_ = -1;
    askAtMs_ = nowMs_ + backoff_.pause();
}

VXWrapHeader UdpSession::header(VXWrapType type) const {
    return {type, agentType_, 0, index_, 0, wire(request_), {}, wire(function_), wire(tags_)};
}

// A message without payload, as a datagram. False when the port is closed.
bool UdpSession::say(VXWrapType type) {
    const std::int64_t length = vxWrapEncode(datagram_.data(), datagram_.size(), header(type), {});
    if (length < 0) return true;
    return send(fd_, datagram_.data(), static_cast<std::size_t>(length), MSG_NOSIGNAL) >= 0 ||
           errno == EAGAIN || errno == EINTR || errno == ENOBUFS;
}

void UdpSession::ask() {
    const bool known = index_ != kWrapIndexUnknown;
    const bool silent = known && unanswered_ >= kUnanswered;
    if (silent || !say(known ? VXWrapType::kSettings : VXWrapType::kPendingRuckus)) {
        lose();
        return;
    }
    ++unanswered_;
    askAtMs_ = nowMs_ + (!known ? backoff_.pause() : instrumenting() ? kAskRunningMs : kAskMs);
}

void UdpSession::receive() {
    std::array<char, kTextMax> text;
    for (;;) {
        const ssize_t length = recv(fd_, text.data(), text.size(), 0);
        if (length >= 0) {
            onText({text.data(), static_cast<std::size_t>(length)});
        } else if (errno != EINTR) {
            if (errno != EAGAIN && errno != EWOULDBLOCK) lose();
            return;
        }
    }
}

void UdpSession::onText(std::string_view text) {
    unanswered_ = 0;
    const std::int32_t index = numberBehind(text, "AppIndex:", kWrapIndexUnknown);
    if (index >= 0) {
        index_ = index;
        procIndex_.store(index);
        backoff_.reset();
        controlUp_.store(true);
        askAtMs_ = nowMs_;
    }
    constexpr std::int32_t kNone = std::numeric_limits<std::int32_t>::min();
    for (const std::string_view name : {"TestNumber", "testIdx="}) {
        const std::int32_t test = numberBehind(text, name, kNone);
        if (test != kNone && index_ != kWrapIndexUnknown) setTest(test);
    }
}

void UdpSession::setTest(std::int32_t test) {
    const bool runs = test > 0;
    if (runs == instrumenting()) return;
    if (runs) {
        counters_.starts.fetch_add(1);
        sendFromMs_ = nowMs_ + kTestSettleMs;
        dataState_.store(DataState::kSettling);
    }
    dropRecords();  // late ones of the former run
    setInstrumenting(runs);
}

// Fills the datagram with whole records off the batch, each behind its header. Its length; `taken` gets the
// bytes of the records.
std::size_t UdpSession::fillDatagram(std::size_t& taken) {
    static_assert(kRecordMax + kWrapDatagramMin <= kDatagramSize, "each record fits");
    char* const out = datagram_.data();
    const VXWrapHeader head = header(VXWrapType::kRecords);
    Batch ahead = batch_;
    std::size_t length = 0;
    while (!ahead.empty()) {
        const std::size_t frame = ahead.wholeFrames(1);
        const std::int64_t added =
            vxWrapEncode(out + length, datagram_.size() - length, head, {ahead.data + ahead.at, frame});
        if (added < 0) break;
        length += static_cast<std::size_t>(added);
        ahead.advance(frame);
    }
    taken = ahead.at - batch_.at;
    return length;
}

void UdpSession::sendRecords() {
    dataState_.store(DataState::kSending);
    full_ = false;
    for (int i = 0; i < kBurst; ++i) {
        if (batch_.empty()) {
            const bool now = nowMs_ >= takeAtMs_ || queue_.pressed() || flushing_.load() || stopByMs_.load();
            if (queue_.filled() == 0) takeAtMs_ = 0;
            if (queue_.filled() == 0 || !now) return;
            queue_.take(batch_);
            takeAtMs_ = 0;
        }
        std::size_t taken = 0;
        const std::size_t length = fillDatagram(taken);
        if (send(fd_, datagram_.data(), length, MSG_NOSIGNAL) < 0) {
            full_ = errno == EAGAIN || errno == EINTR || errno == ENOBUFS;
            if (!full_) lose();
            return;
        }
        const std::uint64_t completed = batch_.advance(taken);
        counters_.sentBytes.fetch_add(length);
        counters_.sentRecords.fetch_add(completed);
        finished_.fetch_add(completed);
        noteProgress();
    }
    sendFromMs_ = nowMs_ + kPaceMs;
}

std::int64_t UdpSession::nextDeadline() const {
    std::int64_t next = askAtMs_;
    if (stopByMs_.load()) next = std::min(next, stopByMs_.load());
    if (!instrumenting() || full_) return next;
    if (nowMs_ < sendFromMs_ || !batch_.empty()) return std::min(next, std::max(sendFromMs_, nowMs_));
    return queue_.filled() && takeAtMs_ ? std::min(next, takeAtMs_) : next;
}

void UdpSession::waitForEvents() {
    const auto wanted = static_cast<short>(full_ ? POLLIN | POLLOUT : POLLIN);
    std::array<pollfd, 2> fds{{{wakeFd_, POLLIN, 0}, {fd_, wanted, 0}}};
    const std::int64_t wait = std::clamp(nextDeadline() - nowMs_, std::int64_t{0}, kLongestWaitMs);
    poll(fds.data(), fds.size(), static_cast<int>(wait));
    eventfd_t woken = 0;
    if (fds[0].revents & POLLIN) eventfd_read(wakeFd_, &woken);
    if (woken && takeAtMs_ == 0) takeAtMs_ = monotonicMs() + kLingerMs;
}

}  // namespace vx::agent
