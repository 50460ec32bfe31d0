// Session of an agent with the proxy: one thread that registers, follows the proxy's orders and sends what
// the host has reported.
//
//     control   registers as soon as the proxy is there; start and stop of instrumentation come on it
//     data      stands only while instrumentation runs:
//
//         kNone --start--> kConnecting --line sent--> kSettling --kept open--> kSending
//           ^  stop, control lost     ^------ closed by the proxy, back-off ------|
//                                     ^------ records after a pause --------------|
//
// The proxy takes no notice of a data line, and it closes a data connection when it reads from one while no
// collector takes data. A new connection, or one that was silent for kIdleMs, therefore first sends a
// newline, and records follow when it is still open a moment later.
//
// Threads   The I/O thread runs it (over WebSocket, a second one owns the library of the connections); the
// host's threads read the atomic members and put records.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "tools/agent/vxagent_lines.h"
#include "tools/agent/vxagent_link.h"
#include "tools/agent/vxagent_queue.h"

namespace vx::agent {

inline constexpr std::int64_t kProbeMs = 20;       // from the data line to the newline behind it
inline constexpr std::int64_t kSettleMs = 100;     // from there to the first record
inline constexpr std::int64_t kFarewellMs = 1000;  // for the ends of WebSockets
inline constexpr std::int64_t kIdleMs = 1000;      // without records, before one is tried again
// In place of kSettleMs where the proxy may have reason to close: behind such a pause, or a connection that
// it closed. Long, for a proxy under load: what is sent before it closes is lost.
inline constexpr std::int64_t kDoubtMs = 500;
inline constexpr std::int64_t kLingerMs = 5;    // records gather for so long before they are sent
inline constexpr std::size_t kSendMax = 32768;  // of one send; one segment on loopback

enum class DataState : std::uint8_t { kNone, kConnecting, kProbing, kSettling, kSending };

struct SessionCounters {
    std::atomic<std::uint64_t> sentRecords{0}, sentBytes{0}, dropped{0}, reconnects{0}, starts{0};
};

class Session {
public:
    // `transport` is of enum vxagent_transport.
    Session(Identity identity, std::size_t queueBytes, std::int64_t retryMaxMs, int transport);
    virtual ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool start();  // false when the thread cannot be made
    // Ends the thread, after at most `lingerMs` of sending what is queued.
    void stop(std::int64_t lingerMs);

    // False in the child of a fork, whatever the parent's session does.
    bool instrumenting() const { return instrumenting_.load(std::memory_order_relaxed) && !inherited(); }
    // True in the child of a fork: the threads are the parent's, and who held a lock is not here.
    bool inherited() const { return forks.load(std::memory_order_relaxed) != bornAt_; }
    // There, in place of stop() and the end: gives the copies of the descriptors back, so that the proxy sees
    // when the parent ends.
    void leave();
    int state() const;
    std::int32_t procIndex() const { return procIndex_.load(std::memory_order_relaxed); }
    RecordQueue& queue() { return queue_; }
    const RecordQueue& queue() const { return queue_; }
    SessionCounters& counters() { return counters_; }
    const SessionCounters& counters() const { return counters_; }
    void wake();
    // Records that were put and are neither sent nor given up.
    std::uint64_t pending() const { return queue_.accepted() - finished_.load(); }
    // Waits until all records put so far are sent or given up. False when the time was not enough.
    bool flush(std::int64_t timeoutMs);

protected:
    virtual void run();  // the thread's body
    bool ending() const;
    void dropRecords();
    void setInstrumenting(bool on);
    void noteProgress();

    const Identity identity_;
    sockaddr_in address_{};
    RecordQueue queue_;
    Batch batch_;
    std::int64_t nowMs_ = 0;
    std::int64_t takeAtMs_ = 0;  // when the queue is looked at; 0: when it is woken
    int wakeFd_ = -1;
    std::atomic<DataState> dataState_{DataState::kNone};
    std::atomic<bool> controlUp_{false}, instrumenting_{false}, flushing_{false};
    std::atomic<std::int32_t> procIndex_{-1};
    std::atomic<std::int64_t> stopByMs_{0};  // 0: not asked to stop
    SessionCounters counters_;
    std::atomic<std::uint64_t> finished_{0};  // records sent or given up, of those that were put

private:
    static inline std::atomic<unsigned> forks{0};  // that lie behind this process

    static void* threadBody(void* session);
    void waitForEvents();
    std::int64_t nextDeadline() const;

    void stepControl();
    void onControlLine(const std::string& line);
    void onStart(const std::string& line);
    void onStop();
    void loseControl();

    void stepData();
    void advanceData();
    void settle();
    void openData();
    void sendRecords();
    IoResult sendFrames();
    void loseData();
    void closeData();
    void finish();

    const int transport_;
    unsigned bornAt_ = 0;
    ws::WsPipes pipes_;  // the connections, unless they are plain
    Link control_, data_;
    StartIds ids_;
    bool inDoubt_ = false;        // the proxy may be about to close the data connection
    std::int64_t sentAtMs_ = 0;   // the latest records, or when the data connection was ready for them
    std::int64_t dataDueMs_ = 0;  // when the data connection's present state has lasted long enough
    short controlEvents_ = 0, dataEvents_ = 0;
    bool threadMade_ = false;
    pthread_t thread_{};

    std::mutex progressMutex_;
    std::condition_variable progress_;
};

}  // namespace vx::agent
