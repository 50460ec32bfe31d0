#include "commonlibc/proxyServer/vx_udp_receiver.h"

#include <apr_errno.h>

#include <chrono>
#include <thread>
#include <utility>

#include "commonlibc/platform/vx_platform_udp.h"
#include "commonlibc/proxyServer/vx_udp_functions.h"
#include "commonlibc/proxyServer/vx_udp_nodes.h"
#include "commonlibc/proxyServer/vx_udp_refusals.h"
#include "commonlibc/proxyServer/vx_udp_watchers.h"
#include "commonlibc/proxyServer/vx_udp_workers.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_thread.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

void (*vxUdpFailed)(int port, const char* reason) = nullptr;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSocketQueueBytes = 8 * 1024 * 1024;
constexpr std::size_t kMaxDatagram = kUdpNodeSize - 1;
constexpr std::chrono::seconds kBindRetry{10};
constexpr std::chrono::milliseconds kNap{2}, kPauseAfterError{10};
constexpr std::chrono::milliseconds kWindow{10}, kThickness{1};  // naps from one datagram a millisecond on

struct Threads {
    apr_thread_t* thread = nullptr;
    apr_pool_t* pool = nullptr;
};
Threads receiver;  // of the present start; the listener's

bool stopping() {
    return VXUdp.stopping.load(std::memory_order_acquire) ||
           proxyStopFlag.load(std::memory_order_acquire) != 0;
}

void waitForStop(std::chrono::seconds time) {
    std::unique_lock lock(VXUdp.stopMutex);
    VXUdp.stopped.wait_for(lock, time, stopping);
}

void publish(int socket) {
    const std::lock_guard lock(VXUdp.socketMutex);
    VXUdp.socket = socket;
    VXUdp.lostTold = 0;
}

void tellFailure(const char* reason) {
    if (vxUdpFailed) vxUdpFailed(VXProxy.proxyPort, reason);
}

// The socket, or -1 at a stop.
int openSocket() {
    char error[kSockErrorSize] = "";
    for (bool told = false; !stopping(); told = true) {
        const int socket = vx_platform_udp_open(VXProxy.proxyPort, kSocketQueueBytes, error, sizeof(error));
        if (socket >= 0) {
            VX_TRACE(1, kControlThread, kInfo, "Successully created socket for UDP.");
            VX_TRACE(1, kControlThread, kInfo, "The system holds up to %d bytes of datagrams that wait",
                     vx_platform_udp_queue_size(socket));
            return socket;
        }
        VX_TRACE(1, kControlThread, kError,
                 "Proxy Server Failed to create UDP connection '%s'. Retrying in 10 seconds.", error);
        if (!told) tellFailure(error);
        waitForStop(kBindRetry);
    }
    return -1;
}

// How thickly datagrams come, found anew in each window of time.
class Pace {
public:
    void count(int taken) { taken_ += taken; }
    // The queue is empty: whether to nap, and let some gather, before the next look.
    bool worthNap() {
        const Clock::time_point now = Clock::now();
        if (now - since_ >= kWindow) {
            thick_ = taken_ * kThickness >= now - since_;
            since_ = now;
            taken_ = 0;
        }
        return thick_;
    }

private:
    Clock::time_point since_{};
    int taken_ = 0;
    bool thick_ = false;
};

// The receiver's side of the free list: nodes that datagrams are to come into.
class Inlet {
public:
    explicit Inlet(int socket) : socket_(socket) {}
    ~Inlet() {
        VXUdpQueue left{};
        for (int i = 0; i < count_; ++i) vxUdpAppend(left, nodes_[i]);
        vxUdpGiveNodes(left);
    }
    Inlet(const Inlet&) = delete;
    Inlet& operator=(const Inlet&) = delete;

    // False when all nodes are with the workers, and none comes back within a second.
    bool takeNodes() {
        count_ += vxUdpTakeNodes(nodes_ + count_, kMostDatagrams - count_, count_ == 0);
        return count_ > 0;
    }
    // Receives what is there, or waits for it at most a second, and hands it to the workers.
    void receive() {
        const bool naps = emptied_ && pace_.worthNap();
        if (naps) std::this_thread::sleep_for(kNap);
        for (int i = 0; i < count_; ++i) rooms_[i].buffer = nodes_[i]->buffer;
        const int got = vx_platform_udp_receive(socket_, rooms_, count_, kMaxDatagram, emptied_ && !naps);
        emptied_ = got < count_;
        if (got > 0) handOver(got);
        if (got != kDatagramFailed || stopping()) return;
        traceFailure();
        std::this_thread::sleep_for(kPauseAfterError);
    }

private:
    void handOver(int got) {
        int kept = 0;
        for (int i = 0; i < count_; ++i) {
            VXUdpNode* node = nodes_[i];
            if (i < got && fill(*node, rooms_[i]))
                vxUdpHandOver(node);
            else
                nodes_[kept++] = node;
        }
        count_ = kept;
        pace_.count(got);
        vxUdpWakeWorkers();
    }
    static bool fill(VXUdpNode& node, const VXDatagramRoom& room) {
        node.sender = {room.sender.ip, room.sender.port};
        node.length = static_cast<std::int32_t>(room.length);
        node.buffer[room.length] = '\0';
        if (room.length == 0) traceFailure();
        return room.length > 0;
    }
    static void traceFailure() {
        if (vxUdpTracesRefusal())
            VX_TRACE(1, kControlThread, kError, "Failed to receive data from UDP socket");
        vxUdpCountRefusal();
    }

    const int socket_;
    Pace pace_;
    bool emptied_ = true;  // the last look took all that was there
    int count_ = 0;
    VXUdpNode* nodes_[kMostDatagrams];
    VXDatagramRoom rooms_[kMostDatagrams];
};

void receiveLoop(int socket) {
    Inlet inlet(socket);
    while (!stopping()) {
        if (inlet.takeNodes())
            inlet.receive();
        else if (!stopping())
            VX_TRACE(1, kControlThread, kError, "Write list is empty. Ignoring UDP packet");
    }
}

bool startReceiver(vxApplication* root) {
    const apr_status_t status =
        vxlb_thread_start(receiver.thread, receiver.pool, root->pool, proxy_udp_handler, root);
    if (status == APR_SUCCESS) {
        VX_TRACE(1, kControlThread, kInfo, "Created udp thread with port '%d' and timeout %ld (secs)",
                 VXProxy.proxyPort, static_cast<long>(VXProxy.proxyudpTimeout));
        return true;
    }
    char error[kSockErrorSize];
    VX_TRACE(1, kControlThread, kError, "Error in creating udp thread... '%s'",
             apr_strerror(status, error, sizeof(error)));
    return false;
}

bool makeIntake(vxApplication* root) {
    if (!udp_buff_list_init(VXProxy.numUDPThreads)) {
        VX_TRACE(1, kControlThread, kError, "Error in creating udp buffer...");
        return false;
    }
    return vxUdpMakeTables() && vxUdpMakeWorkers(VXProxy.numUDPThreads, root) && vxUdpStartWatchers(root) &&
           startReceiver(root);
}

}  // namespace

void* proxy_udp_handler(apr_thread_t*, void* root) {
    vxSetCurrent(static_cast<vxApplication*>(root));
    const int socket = openSocket();
    publish(socket);
    if (socket >= 0) receiveLoop(socket);
    return nullptr;
}

void vxUdpStart() {
    if (VXProxy.proxyudpTimeout < 1) VXProxy.proxyudpTimeout = kUdpDefaultTimeoutS;
    VXUdp.stopping.store(false);
    if (makeIntake(vxCurrent())) return;
    VX_TRACE(1, kControlThread, kError, "No datagrams are taken: the intake could not be started");
    tellFailure("no memory, or no thread");
    vxUdpStop();
}

void vxUdpStop() {
    {
        const std::scoped_lock lock(VXUdp.stopMutex, VXUdp.freeMutex);
        VXUdp.stopping.store(true);
    }
    VXUdp.stopped.notify_all();
    VXUdp.freed.notify_all();
    {
        const std::lock_guard lock(VXUdp.socketMutex);
        if (VXUdp.socket >= 0) vx_platform_udp_wake(VXUdp.socket);
    }
    vxlb_thread_join(receiver.thread, receiver.pool);
    vxUdpEndWorkers();
    vxUdpJoinWatchers();
    udp_buff_list_free();
    vxUdpTellLosses();
    const std::lock_guard lock(VXUdp.socketMutex);
    vx_platform_udp_close(std::exchange(VXUdp.socket, -1));
}

}  // namespace vx
