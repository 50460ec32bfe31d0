// Ways in: the ports that the collector listens on, for plain TCP, WS and WSS.
//
// Whatever the way, a connection is a descriptor that is read and written as a socket: behind the WebSocket
// ones stands a thread that does the framing (ws_pipes).
//
// Threads   The poll loop's.
#pragma once

#include <poll.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "tools/collector/collector_options.h"
#include "tools/ws/ws_pipes.h"

namespace vx::collector {

class Ways {
public:
    Ways() = default;
    ~Ways();
    Ways(const Ways&) = delete;
    Ways& operator=(const Ways&) = delete;

    // Listens as the options say; false with the reason in `error`.
    bool open(const Options& options, std::string& error);
    // Adds what is to be polled for news of connections.
    void poll(std::vector<pollfd>& polled) const;
    // Takes a connection that waits; its descriptor, which does not block, is the caller's.
    bool take(ws::Accepted& out);

    // As in "127.0.0.1:8443 (WSS), 127.0.0.1:8080 (TCP)".
    std::string text(const std::string& host) const;
    // What a reply offers to an instance: "WSS:8443,TCP:8080". Empty with one way only, on which an instance
    // already is: what it says of itself stays true even where its connections come through another port.
    std::string offer() const;
    // The ports, one a line: TCP, WS, WSS, those that there are.
    std::string ports() const;

private:
    struct Way {
        const char* name;
        int port = 0;
        std::unique_ptr<ws::WsPipes> pipes;  // none: TCP
    };
    bool openTcp(const Options& options, std::string& error);
    bool openWs(const Options& options, const char* name, int port, std::string& error);

    std::vector<Way> ways_;
    int tcpFd_ = -1;
};

}  // namespace vx::collector
