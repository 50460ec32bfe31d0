// One connection, plain or WebSocket, that is made again and again: non-blocking, with growing pauses between
// attempts.
//
//     kDown --open--> kConnecting --connected--> kUp --lost or refused--> kDown (not before retryAtMs)
//
// Units     Milliseconds of the monotonic clock.
// Limits    A line of more than kLineMax bytes is passed over.
// Threads   The I/O thread of one agent.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include "tools/ws/ws_pipes.h"

namespace vx::agent {

inline constexpr std::size_t kLineMax = 1 << 20;
inline constexpr std::int64_t kRetryFirstMs = 100;
inline constexpr std::int64_t kConnectMs = 10000;

std::int64_t monotonicMs();

// Pauses between attempts: 100 ms, then twice as long each time up to `maxMs`; half of each is drawn by lot.
struct Backoff {
    std::int64_t maxMs = 10000;
    std::int64_t nextMs = kRetryFirstMs;
    std::minstd_rand lot;

    std::int64_t pause();
    void reset() { nextMs = kRetryFirstMs; }
};

enum class LinkState : std::uint8_t { kDown, kConnecting, kUp };
enum class IoResult : std::uint8_t { kDone, kLater, kLost };

struct Link {
    int fd = -1;
    LinkState state = LinkState::kDown;
    std::int64_t retryAtMs = 0;    // no attempt before this
    std::int64_t connectByMs = 0;  // an attempt that takes longer counts as failed
    Backoff backoff;
    std::string out;  // to be sent; begins with what is not sent yet
    std::string in;   // received, without a newline yet
    bool skipping = false;
    ws::WsPipes* pipes = nullptr;  // makes WebSocket connections; null: plain ones
    std::string host;              // with pipes: the name of the other side
};

// The IPv4 address of a host; numeric ones need no look-up.
bool resolveHost(const std::string& host, int port, sockaddr_in& address);
// Begins to connect; a failure counts as an attempt.
void openLink(Link& link, const sockaddr_in& address, std::int64_t nowMs);
// What a link that connects is polled for.
short connectEvents(const Link& link);
// Looks how a connect has ended. kDone: the link is up.
IoResult finishConnect(Link& link);
// Sends what stands in `out`. kLost leaves the link to the caller.
IoResult sendOut(Link& link);
// Sends bytes past `out`; `sent` says how many went.
IoResult sendBytes(const Link& link, const char* data, std::size_t size, std::size_t& sent);
// Receives what is there into `in` (kLater: all taken).
IoResult receiveIn(Link& link);
// Takes one line without its newline off `in`. False when none is complete.
bool takeLine(Link& link, std::string& line);
// Closes; the next attempt waits for the back-off's pause.
void closeLink(Link& link, std::int64_t nowMs);

}  // namespace vx::agent
