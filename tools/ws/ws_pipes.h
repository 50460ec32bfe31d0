// WebSocket connections as plain descriptors: a program keeps its poll loop and its reads and writes.
//
//     program --fd--[pair of sockets]--fd-- owner thread --[libwebsockets]-- WS or WSS -- other host
//
// What the program writes goes out as binary messages, what comes is there to read, without a trace of
// frames. Messages of connections made here end with a line: the proxy wants lines whole. The end of one side
// ends the other behind everything that was on its way. shutdown() of the program's end for writing closes
// the WebSocket behind the last byte; the end to be read then says that the other host has answered, and with
// that has read everything.
//
// Limits    Besides what the system holds for a pair, about kWsPart bytes wait in each direction; then the
//           side that brings them is not read. At most kWsPipesMost connections to a listener, kWsDialsMost
//           of those made here; one more is refused. What a program leaves behind in its end is sent for at
//           most 10 s.
// Threads   One of its own, which alone calls libwebsockets. The calls may come from any other one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace vx::ws {

inline constexpr std::size_t kWsPart = 16320;  // with its frame, one record of TLS
inline constexpr std::size_t kWsPipesMost = 1024, kWsDialsMost = 64;

struct ListenAt {
    std::string host;              // an IPv4 address
    int port = 0;                  // 0: one of the system's choice
    std::string certificate, key;  // files; both empty: WS, else WSS
};
struct Accepted {
    int fd;  // non-blocking, the caller's
    std::string peer;
};

class WsPipes {
public:
    WsPipes();
    // Ends at once what end() has not.
    ~WsPipes();
    WsPipes(const WsPipes&) = delete;
    WsPipes& operator=(const WsPipes&) = delete;

    // Waits for connections; false with the reason in `error`.
    bool listen(const ListenAt& at, std::string& error);
    int port() const;
    // A descriptor that can be read while connections wait to be taken.
    int news() const;
    bool take(Accepted& out);

    // Makes connections; false without memory or thread.
    bool open(bool tls);
    // The caller's end of a new connection, at once; -1 without descriptors. It can be read when it is known
    // how connecting has ended: one byte (of no meaning) says that it stands, the end that it failed. `host`
    // is its name, `address` its IPv4 address.
    int dial(const std::string& host, const std::string& address, int port);

    // Ends the thread when all connections are over, at the latest after `lingerMs`.
    void end(std::int64_t lingerMs);

private:
    struct Inside;
    std::unique_ptr<Inside> inside_;
};

}  // namespace vx::ws
