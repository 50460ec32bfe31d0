// Session of a function with the proxy: datagrams instead of connections.
//
//     kUnknown --"AppIndex:n"--> kKnown --TestNumber above 0--> settling --> sending
//        ^------ no answer to kUnanswered questions, or the port is closed ------|
//
// A function makes itself known by its names and is told the index of its context; from then on each datagram
// carries the index alone. It asks for its settings every so often, which keeps it alive at the proxy and
// tells it of a test that begins or ends. Each record goes out behind a wrap header, several in one datagram.
//
// The proxy finds a function's transaction by the function, not by the transaction's number: one at a time.
// A function's name therefore belongs to one process at a time.
//
// Limits    Datagrams of kDatagramSize bytes, kBurst of them between two pauses of kPaceMs: nothing tells a
//           sender what the other host had no room for.
// Threads   As those of a session by connections.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "commonlibc/vxlb_wrap_header.h"
#include "tools/agent/vxagent_session.h"

namespace vx::agent {

inline constexpr std::size_t kDatagramSize = 16384;
inline constexpr int kBurst = 4;
inline constexpr std::int64_t kPaceMs = 1;
inline constexpr std::int64_t kAskMs = 250,
                              kAskRunningMs = 2000;  // between questions, outside a test and in it
inline constexpr int kUnanswered = 8;
inline constexpr std::int64_t kTestSettleMs = 500;  // from the news of a test to the first record

// The number behind `name` in a text of the proxy, as in "AppIndex:7" or {"TestNumber":12}; `otherwise` where
// there is none.
std::int32_t numberBehind(std::string_view text, std::string_view name, std::int32_t otherwise);

class UdpSession final : public Session {
public:
    UdpSession(const Identity& identity, std::string function, std::size_t queueBytes,
               std::int64_t retryMaxMs);
    ~UdpSession() override;

private:
    void run() override;
    void step();
    void waitForEvents();
    void receive();
    void onText(std::string_view text);
    void setTest(std::int32_t test);
    void ask();
    bool openSocket();
    void lose();
    void sendRecords();
    std::size_t fillDatagram(std::size_t& taken);
    VXWrapHeader header(VXWrapType type) const;
    bool say(VXWrapType type);
    std::int64_t nextDeadline() const;

    const std::string function_, request_, tags_;
    const std::int16_t agentType_;
    std::vector<char> datagram_;
    Backoff backoff_;
    int fd_ = -1;
    std::int32_t index_ = kWrapIndexUnknown;
    int unanswered_ = 0;
    std::int64_t askAtMs_ = 0, sendFromMs_ = 0;  // when to ask, when to send the next datagrams
    bool full_ = false;                          // this host's buffer takes no more at the moment
};

}  // namespace vx::agent
