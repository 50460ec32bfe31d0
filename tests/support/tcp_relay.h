// A relay on loopback that stands between two of our programs and spoils connections on order.
//
//     TcpRelay relay(collectorPort);                 // the service is told relay.port()
//     relay.add({.kind = Fault::Kind::kReset, .way = Way::kDown, .connection = "vx_ctrl_msg_req:",
//                .behind = "action=start_instrumentation", .bytes = 5});
//     ... EXPECT_TRUE(eventually([&] { return relay.struck() == 1; }));
//
// A fault waits for a connection that it fits, and strikes it at one byte of one direction: what stands
// before that byte has gone through, what stands behind it has not.
//
// Limits    256 KB wait in each direction of a connection; then its sender is not read.
// Threads   One of its own passes the bytes, in turns of 10 ms at most; the calls may come from any other.
// Lifetime  The destructor resets what stands.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace vx::test {

enum class Way { kUp, kDown };  // from who connects to the target, and back

struct Fault {
    enum class Kind {
        kCut,    // both ends see the end of the stream
        kReset,  // both ends see a reset
        kSlow,   // this direction goes on in pieces of `piece` bytes, one a turn
    };
    Kind kind = Kind::kCut;
    Way way = Way::kUp;
    std::string connection = {};  // the first line of what it strikes begins with this; empty: any
    std::string behind = {};      // the place: the end of this text's first occurrence; empty: the beginning
    std::int64_t bytes = 0;       // and so many bytes further
    int times = 1;                // connections that it strikes
    std::size_t piece = 0;
};

class TcpRelay {
public:
    explicit TcpRelay(int targetPort);
    ~TcpRelay();
    TcpRelay(const TcpRelay&) = delete;
    TcpRelay& operator=(const TcpRelay&) = delete;

    int port() const { return port_; }
    // For connections that come from now on, or have said nothing yet.
    void add(const Fault& fault);
    // Ends what stands now, with a reset or in order.
    void endAll(bool reset);
    // While refusing, whoever connects sees the end at once.
    void refuse(bool on);

    int struck() const { return struck_.load(); }      // times that a fault struck
    int accepted() const { return accepted_.load(); }  // connections so far

private:
    struct Stream {  // one direction
        int from = -1, to = -1;
        std::string bytes;       // from the beginning while a fault waits, else from where it has got to
        std::size_t passed = 0;  // of them
        std::size_t piece = std::string::npos;
        bool ended = false;  // the sender has ended
        bool endTold = false;
    };
    struct Connection {
        Stream up, down;
        bool named = false;  // its first line is known, and the faults that fit are armed
        bool gone = false;
        std::list<Fault> armed = {};
    };

    void run();
    void acceptOne();
    void arm(Connection& connection);
    void receive(Connection& connection, Stream& stream);
    void passOn(Connection& connection, Stream& stream, Way way);
    void end(Connection& connection, bool reset);

    const int targetPort_;
    int listener_ = -1, port_ = 0;
    std::mutex mutex_;  // guards what follows
    std::list<Fault> waiting_;
    std::list<Connection> connections_;
    bool stop_ = false, refuse_ = false;
    std::atomic<int> struck_{0}, accepted_{0};
    std::thread thread_;
};

}  // namespace vx::test
