// HTTP for the page: a thread of its own, which takes requests apart and sends answers.
//
// What to answer is the handler's matter; it is called on the server's thread, one request at a time. Nothing
// here touches the intake, so that neither a slow browser nor a long question holds it up.
//
// A GET that may take long waits in one of two lines, and each turn of the loop answers one of them:
//
//     soon   o o o o     a turn takes from both alternately, while both have somebody
//     late   o o         files, the status and new connections are served between any two
//
// Limits    kMostConnections; a request's headers kMostHeaders bytes, its body kMostBody; answers that wait
//           kMostWaiting, beyond which a request is refused. A connection ends when its request has not come,
//           its answer has not been taken, or nothing was asked in the time of PagePatience. When all places
//           are taken, the one in which nothing has moved for longest gives way to a new one, unless it
//           waits in line. Of either line kMostSoon and kMostLate wait or have not taken their answer; a
//           question beyond is refused, unless one of them has stalled, and so is one that waits in line for
//           longer than an answer may take.
// Lifetime  stop() (or the end of the object) ends the thread; the handler must outlive it.
// Threads   start() and stop() of one thread.
#pragma once

#include <libwebsockets.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>

#include "tools/collector/page_request.h"

namespace vx::collector {

inline constexpr std::size_t kMostConnections = 64;
inline constexpr std::size_t kMostSoon = 40, kMostLate = 8;  // together fewer than connections
inline constexpr std::int64_t kStalledMs = 1000;  // an answer of which nothing was taken for so long
inline constexpr std::size_t kMostHeaders = 8192;
inline constexpr std::size_t kMostBody = 1024 * 1024;
inline constexpr std::size_t kMostWaiting = std::size_t{64} * 1024 * 1024;  // bytes of answers in all
struct PagePatience {
    int request = 10, answer = 30, idle = 60;  // seconds
};

using PageHandler = std::function<PageAnswer(const PageRequest&)>;
using PageTurns = PageTurn (*)(const PageRequest&);

class PageServer {
public:
    PageServer(std::string host, int port, PageHandler handler, PageTurns turns, PagePatience patience);
    ~PageServer();
    PageServer(const PageServer&) = delete;
    PageServer& operator=(const PageServer&) = delete;

    // Binds, and starts the thread. False with the reason in `error`.
    bool start(std::string& error);
    void stop();
    int port() const { return port_; }
    // Connections that found no place.
    std::uint64_t refused() const { return refused_.load(std::memory_order_relaxed); }

private:
    // A request comes, is in line where it may take long, is called up (in time or not), and its answer is
    // sent.
    enum class Stage { kComing, kInLine, kCalled, kTooLate, kSending };
    // One request on its way, and its answer.
    struct Exchange {
        Stage stage = Stage::kComing;
        PageTurn turn = PageTurn::kNow;  // once it has come
        PageRequest request;
        PageAnswer answer;
        std::int64_t deadline = 0;  // seconds of the steady clock
        std::size_t expected = 0;   // bytes of the body
        std::size_t sent = 0;
        bool closes = false;  // no further request on this connection
        bool bare = false;    // a HEAD: the answer has no body
        std::string_view bytes() const { return answer.bytes.empty() ? answer.body : answer.bytes; }
    };

    struct Refusal {
        int status = 0;
        const char* why = nullptr;  // null: none
    };

    static int onEvent(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length);
    int serve(lws* wsi, lws_callback_reasons reason, const char* in, std::size_t length);
    int takeRequest(lws* wsi, std::string_view path);
    static Refusal refusalOf(lws* wsi, Exchange& exchange);
    int takeBody(lws* wsi, std::string_view part);
    int lineUp(lws* wsi, Exchange& exchange);
    void callUp();
    void drop(lws* wsi);
    bool mayGiveWay(lws* wsi, std::int64_t stalled) const;
    bool takesMore(PageTurn turn);
    int answer(lws* wsi, Exchange& exchange);
    int refuse(lws* wsi, Exchange& exchange, int status, const char* why);
    int sendHead(lws* wsi, Exchange& exchange);
    int sendWhole(lws* wsi, Exchange& exchange);
    int sendSome(lws* wsi);
    int finish(lws* wsi);
    void run();
    bool hasPlace();
    void endLate();
    std::size_t waiting() const;

    const std::string host_;
    int port_;
    const PageHandler handler_;
    const PageTurns turns_;
    const PagePatience patience_;
    lws_protocols protocols_[2];
    lws_context* context_ = nullptr;
    std::unordered_map<lws*, std::unique_ptr<Exchange>> exchanges_;
    std::unordered_map<lws*, std::int64_t> moved_;  // of each connection: when something was done last
    std::deque<lws*> soon_, late_;
    bool lateNext_ = false;
    std::atomic<std::uint64_t> refused_{0};
    std::atomic<bool> stopped_{false};
    std::thread thread_;
};

}  // namespace vx::collector
