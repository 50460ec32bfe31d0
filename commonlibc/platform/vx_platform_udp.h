// The datagram socket of the service.
//
// Threads   One thread receives; any may send, ask and wake. Who closes sees to it that nobody is inside.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

// One end of a datagram's way, in host order: 127.0.0.1 is 0x7F000001.
struct VXDatagramEnd {
    std::uint32_t ip;
    std::uint16_t port;
};

// Room for one datagram, and what came into it.
struct VXDatagramRoom {
    char* buffer;
    std::int64_t length;  // 0: an empty one
    VXDatagramEnd sender;
};

inline constexpr int kMostDatagrams = 64;   // of one call
inline constexpr int kNoDatagram = -1;      // none is there, or the wait was ended
inline constexpr int kDatagramFailed = -2;  // the socket reports an error

// A socket on 0.0.0.0:`port` whose queue holds up to `queueBytes`, as far as the system allows. The
// descriptor, or -1 with the reason in `error`.
int vx_platform_udp_open(int port, int queueBytes, char* error, std::size_t errorSize);
void vx_platform_udp_close(int descriptor);
// What the system granted its queue, bytes.
int vx_platform_udp_queue_size(int descriptor);
// Takes what is there, at most `count` (1 to kMostDatagrams) datagrams, each cut at `size` bytes. `wait`
// true: sleeps until there is one, at most a second. How many, or one of the codes.
int vx_platform_udp_receive(int descriptor, VXDatagramRoom* rooms, int count, std::size_t size, bool wait);
// Ends a present wait of the receiver; later ones return at once.
void vx_platform_udp_wake(int descriptor);
// Hands a datagram to the system, without waiting. False when it did not take it.
bool vx_platform_udp_send(int descriptor, const char* data, std::size_t length, VXDatagramEnd to);
// Datagrams that found the queue full since the socket was opened, modulo 2^32; -1 where the system cannot
// tell.
std::int64_t vx_platform_udp_lost(int descriptor);

}  // namespace vx
