// The client's end of a WebSocket, byte by byte: for tests that send what no library would.
//
//     WsPeer agent(port);
//     agent.send("vx_ctrl_msg_req:...\n");
//     agent.read();                                  // the next message, whole; kNoLine when none comes
//
// Frames are masked with zeros, so that a payload stands on the wire as it is.
#pragma once

#include <cstdint>
#include <string>

#include "tests/support/raw_agent.h"

namespace vx::test {

inline constexpr int kWsMore = 0, kWsText = 1, kWsBinary = 2, kWsPing = 9, kWsPong = 10;

inline std::string wsFrame(const std::string& payload, int opcode = kWsText, bool last = true) {
    const std::size_t size = payload.size();
    const int lengthBytes = size < 126 ? 0 : size < 65536 ? 2 : 8;
    std::string out(1, static_cast<char>((last ? 0x80 : 0) | opcode));
    out += static_cast<char>(0x80 | (lengthBytes == 0 ? size : lengthBytes == 2 ? 126 : 127));
    for (int shift = 8 * (lengthBytes - 1); shift >= 0; shift -= 8)
        out += static_cast<char>(static_cast<std::uint64_t>(size) >> shift);
    return out + std::string(4, '\0') + payload;
}

class WsPeer {
public:
    WsPeer() = default;
    explicit WsPeer(int port, const std::string& path = "/any") : peer(connectTo(port)) {
        peer.send("GET " + path +
                  " HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                  "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
        status = peer.readLine();
        for (std::string line = status; line.size() > 1 && line != kNoLine;) line = peer.readLine();
    }
    bool send(const std::string& payload, int kind = kWsText, bool last = true) const {
        return peer.send(wsFrame(payload, kind, last));
    }
    std::string read(double seconds = kPeerSeconds) {
        std::string message;
        for (bool last = false; !last;) {
            const std::string head = peer.readBytes(2, seconds);
            if (head.size() < 2) return kNoLine;
            opcode = head[0] & 0x0F;
            const int code = head[1] & 0x7F;
            std::uint64_t size = code < 126 ? static_cast<std::uint64_t>(code) : 0;
            if (code >= 126)
                for (const char byte : peer.readBytes(code == 126 ? 2 : 8, seconds))
                    size = size << 8 | static_cast<unsigned char>(byte);
            message += peer.readBytes(size, seconds);
            last = head[0] & 0x80;
            ++frames;
        }
        return message;
    }

    FakePeer peer;
    std::string status;          // first line of the answer to the handshake
    int opcode = 0, frames = 0;  // of the last frame; read so far
};

}  // namespace vx::test
