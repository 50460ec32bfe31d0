#include "tools/agent/vxagent_session.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <limits>
#include <utility>

#include "commonlibc/vxlb_clock.h"
#include "tools/agent/vxagent.h"
#include "tools/agent/vxagent_threads.h"

namespace vx::agent {
namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr short kBroken = POLLHUP | POLLERR | POLLNVAL;

short wanted(const Link& link, bool more) {
    if (link.state == LinkState::kConnecting) return connectEvents(link);
    return static_cast<short>(more || !link.out.empty() ? POLLIN | POLLOUT : POLLIN);
}

}  // namespace

Session::Session(Identity identity, std::size_t queueBytes, std::int64_t retryMaxMs, int transport)
    : identity_(std::move(identity)), queue_(queueBytes), transport_(transport) {
    const auto seed = static_cast<unsigned>(vxlb_now_us() ^ identity_.pid);
    for (Link* link : {&control_, &data_}) {
        link->backoff.maxMs = retryMaxMs;
        if (transport_ != VXAGENT_TCP) link->pipes = &pipes_;
        link->host = identity_.host;
        link->backoff.lot.seed(seed + (link == &data_ ? 1 : 0));
    }
}

Session::~Session() {
    stop(0);
    if (wakeFd_ >= 0) close(wakeFd_);
}

bool Session::start() {
    static const int counted = pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1); });
    static_cast<void>(counted);
    bornAt_ = forks.load();
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd_ < 0 || !queue_.ready()) return false;
    if (transport_ != VXAGENT_TCP && !pipes_.open(transport_ == VXAGENT_WSS)) return false;
    sigset_t all, before;  // signals are the host's
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    threadMade_ = pthread_create(&thread_, nullptr, threadBody, this) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return threadMade_;
}

void Session::stop(std::int64_t lingerMs) {
    if (!threadMade_) return;
    stopByMs_.store(monotonicMs() + std::max(lingerMs, std::int64_t{0}));
    wake();
    pthread_join(thread_, nullptr);
    pipes_.end(kFarewellMs);
    threadMade_ = false;
}

void Session::leave() {
    for (const int fd : {control_.fd, data_.fd, wakeFd_})
        if (fd >= 0) close(fd);
}

int Session::state() const {
    if (inherited() || !controlUp_.load(std::memory_order_relaxed)) return VXAGENT_OFFLINE;
    if (!instrumenting()) return VXAGENT_CONNECTED;
    return dataState_.load(std::memory_order_relaxed) == DataState::kSending ? VXAGENT_SENDING
                                                                             : VXAGENT_CONNECTING;
}

void Session::wake() {
    eventfd_write(wakeFd_, 1);  // a full counter has woken the thread already
}

bool Session::flush(std::int64_t timeoutMs) {
    if (inherited()) return true;
    const std::uint64_t target = queue_.accepted();
    flushing_.store(true);
    wake();
    std::unique_lock lock(progressMutex_);
    const bool done =
        progress_.wait_for(lock, std::chrono::milliseconds(std::max(timeoutMs, std::int64_t{0})),
                           [this, target] { return finished_.load() >= target; });
    flushing_.store(false);
    return done;
}

void* Session::threadBody(void* session) {
    pthread_setname_np(pthread_self(), "vxagent");
    static_cast<Session*>(session)->run();
    return nullptr;
}

void Session::run() {
    for (;;) {
        nowMs_ = monotonicMs();
        stepControl();
        stepData();
        if (ending()) break;
        waitForEvents();
    }
    finish();
}

bool Session::ending() const {
    const std::int64_t stopBy = stopByMs_.load();
    if (stopBy == 0) return false;
    return nowMs_ >= stopBy || !instrumenting() || (batch_.empty() && queue_.filled() == 0);
}

std::int64_t Session::nextDeadline() const {
    std::int64_t next = stopByMs_.load() ? stopByMs_.load() : kNever;
    if (control_.state != LinkState::kUp)
        next = std::min(next, control_.state == LinkState::kDown ? control_.retryAtMs : control_.connectByMs);
    if (!instrumenting()) return next;
    switch (dataState_.load(std::memory_order_relaxed)) {
        case DataState::kNone:
            return std::min(next, data_.retryAtMs);
        case DataState::kConnecting:
            return std::min(next, data_.connectByMs);
        case DataState::kProbing:
        case DataState::kSettling:
            return std::min(next, dataDueMs_);
        case DataState::kSending:
            return batch_.empty() && takeAtMs_ ? std::min(next, takeAtMs_) : next;
    }
    return next;
}

void Session::waitForEvents() {
    std::array<pollfd, 3> fds{
        {{wakeFd_, POLLIN, 0},
         {control_.fd, wanted(control_, false), 0},
         {data_.fd,
          wanted(data_, !batch_.empty() && dataState_.load(std::memory_order_relaxed) == DataState::kSending),
          0}}};
    const std::int64_t deadline = nextDeadline();
    const std::int64_t wait =
        deadline == kNever ? -1 : std::clamp(deadline - nowMs_, std::int64_t{0}, std::int64_t{60000});
    poll(fds.data(), fds.size(), static_cast<int>(wait));
    controlEvents_ = fds[1].revents;
    dataEvents_ = fds[2].revents;
    eventfd_t woken = 0;
    if (fds[0].revents & POLLIN) eventfd_read(wakeFd_, &woken);
    if (woken && takeAtMs_ == 0) takeAtMs_ = monotonicMs() + kLingerMs;
}

void Session::stepControl() {
    const short events = std::exchange(controlEvents_, short{0});
    switch (control_.state) {
        case LinkState::kDown:
            if (nowMs_ < control_.retryAtMs) return;
            if (!resolveHost(identity_.host, identity_.port, address_)) {
                closeLink(control_, nowMs_);
                return;
            }
            openLink(control_, address_, nowMs_);
            return;
        case LinkState::kConnecting:
            if (!events && nowMs_ < control_.connectByMs) return;
            if (!events || finishConnect(control_) == IoResult::kLost) {
                closeLink(control_, nowMs_);
                return;
            }
            control_.out = controlLine(identity_, vxlb_now_ms());
            break;
        case LinkState::kUp:
            break;
    }
    const bool lost = events & (POLLIN | kBroken) && receiveIn(control_) == IoResult::kLost;
    std::string line;
    while (control_.state == LinkState::kUp && takeLine(control_, line)) onControlLine(line);
    if (lost || sendOut(control_) == IoResult::kLost) loseControl();
}

void Session::onControlLine(const std::string& line) {
    switch (kindOf(line)) {
        case LineKind::kReply:
            procIndex_.store(lastNumber(line, "procIndex", procIndex()));
            control_.backoff.reset();
            controlUp_.store(true);
            return;
        case LineKind::kStart:
            onStart(line);
            return;
        case LineKind::kStop:
            onStop();
            return;
        case LineKind::kThreadDump:
            if (control_.out.size() < kThreadDumpMax) control_.out += threadDumpLine();
            return;
        case LineKind::kOther:
            return;
    }
}

// A start that names the ids of the connection that stands changes nothing; another one moves it.
void Session::onStart(const std::string& line) {
    counters_.starts.fetch_add(1);
    control_.out += kAcknowledgement;
    controlUp_.store(true);
    StartIds ids = startIds(line);
    if (!(ids == ids_)) closeData();
    ids_ = std::move(ids);
    if (dataState_.load() == DataState::kNone) {
        data_.backoff.reset();
        data_.retryAtMs = nowMs_;
    }
    if (!instrumenting()) dropRecords();  // late ones of the former run
    setInstrumenting(true);
}

// The agents are told before the proxy stops, so that what is queued still finds its way.
void Session::onStop() {
    control_.out += kAcknowledgement;
    takeAtMs_ = 0;
    sentAtMs_ = nowMs_;
    if (dataState_.load() == DataState::kSending) sendRecords();
    setInstrumenting(false);
    closeData();
    dropRecords();
}

void Session::loseControl() {
    counters_.reconnects.fetch_add(1);
    setInstrumenting(false);
    controlUp_.store(false);
    closeData();
    dropRecords();
    closeLink(control_, nowMs_);
}

void Session::setInstrumenting(bool on) {
    instrumenting_.store(on);
}

void Session::stepData() {
    const short events = std::exchange(dataEvents_, short{0});
    if (!instrumenting()) return;
    switch (data_.state) {
        case LinkState::kDown:
            if (nowMs_ >= data_.retryAtMs) openData();
            return;
        case LinkState::kConnecting:
            if (!events && nowMs_ < data_.connectByMs) return;
            if (!events || finishConnect(data_) == IoResult::kLost) {
                loseData();
                return;
            }
            data_.out = dataLine(identity_, ids_);
            dataDueMs_ = nowMs_ + kProbeMs;
            dataState_.store(DataState::kProbing);
            break;
        case LinkState::kUp:
            break;
    }
    if (events & (POLLIN | kBroken) && receiveIn(data_) == IoResult::kLost) {
        loseData();
        return;
    }
    data_.in.clear();  // the proxy says nothing here
    advanceData();
}

void Session::advanceData() {
    const DataState state = dataState_.load();
    if (state == DataState::kProbing && nowMs_ >= dataDueMs_) {
        data_.out += '\n';
        settle();
    } else if (state == DataState::kSettling && nowMs_ >= dataDueMs_) {
        data_.backoff.reset();
        inDoubt_ = false;
        sentAtMs_ = nowMs_;
        dataState_.store(DataState::kSending);
    }
    const IoResult result = sendOut(data_);
    if (result == IoResult::kLost) {
        loseData();
    } else if (result == IoResult::kDone && dataState_.load() == DataState::kSending) {
        sendRecords();
    }
}

// A newline is on its way: records may follow if the connection is still open a moment later.
void Session::settle() {
    dataDueMs_ = nowMs_ + (inDoubt_ ? kDoubtMs : kSettleMs);
    dataState_.store(DataState::kSettling);
}

void Session::openData() {
    openLink(data_, address_, nowMs_);
    dataState_.store(data_.state == LinkState::kDown ? DataState::kNone : DataState::kConnecting);
}

void Session::sendRecords() {
    if (batch_.empty()) {
        if (queue_.filled() == 0) {
            takeAtMs_ = 0;
            return;
        }
        const bool now = nowMs_ >= takeAtMs_ || queue_.pressed() || flushing_.load() || stopByMs_.load();
        if (!now) return;
        if (nowMs_ - sentAtMs_ >= kIdleMs) {
            inDoubt_ = true;
            data_.out += '\n';
            settle();
            return;
        }
        queue_.take(batch_);
        takeAtMs_ = 0;
    }
    IoResult result = IoResult::kDone;
    while (result == IoResult::kDone && !batch_.empty()) result = sendFrames();
    if (result == IoResult::kLost) {
        loseData();
    } else if (batch_.empty() && queue_.filled()) {
        takeAtMs_ = queue_.pressed() ? nowMs_ : nowMs_ + kLingerMs;
    }
}

// One send of whole frames. What a read of the proxy leaves of a frame stands in front of the next read of
// any process of the instance, so that frames should not be cut where it can be helped.
IoResult Session::sendFrames() {
    std::size_t sent = 0;
    const IoResult result = sendBytes(data_, batch_.data + batch_.at, batch_.wholeFrames(kSendMax), sent);
    const std::uint64_t completed = batch_.advance(sent);
    if (sent) sentAtMs_ = nowMs_;
    counters_.sentBytes.fetch_add(sent);
    counters_.sentRecords.fetch_add(completed);
    finished_.fetch_add(completed);
    if (completed) noteProgress();
    return result;
}

void Session::loseData() {
    if (data_.state == LinkState::kUp) counters_.reconnects.fetch_add(1);
    counters_.sentBytes.fetch_sub(batch_.at - batch_.recordAt);
    batch_.rewind();
    closeLink(data_, nowMs_);
    inDoubt_ = true;
    dataState_.store(DataState::kNone);
}

void Session::closeData() {
    if (data_.state != LinkState::kDown) closeLink(data_, nowMs_);
    data_.backoff.reset();
    data_.retryAtMs = nowMs_;
    counters_.sentBytes.fetch_sub(batch_.at - batch_.recordAt);
    batch_.rewind();
    dataState_.store(DataState::kNone);
}

void Session::dropRecords() {
    const std::uint64_t lost = queue_.drop(batch_);
    counters_.dropped.fetch_add(lost);
    finished_.fetch_add(lost);
    noteProgress();
}

void Session::noteProgress() {
    const std::lock_guard lock(progressMutex_);
    progress_.notify_all();
}

// The proxy ends all connections of a process with its control connection, so the data connection goes
// first, and the proxy's end of it says that everything was read.
void Session::finish() {
    if (dataState_.load() == DataState::kSending && batch_.empty()) {
        shutdown(data_.fd, SHUT_WR);
        while (nowMs_ < stopByMs_.load() && receiveIn(data_) != IoResult::kLost) {
            data_.in.clear();
            pollfd fd{data_.fd, POLLIN, 0};
            poll(&fd, 1, static_cast<int>(stopByMs_.load() - nowMs_));
            nowMs_ = monotonicMs();
        }
    }
    setInstrumenting(false);
    controlUp_.store(false);
    closeData();
    dropRecords();
    closeLink(control_, nowMs_);
}

}  // namespace vx::agent
