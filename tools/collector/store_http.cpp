#include "tools/collector/store_http.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

namespace vx::collector {

namespace {

// A socket that closes itself.
struct Socket {
    int fd = -1;
    ~Socket() {
        if (fd >= 0) ::close(fd);
    }
    Socket() = default;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
};

HttpAnswer failed(const HttpAddress& address, const std::string& why) {
    return {0, address.host + ":" + address.port + ": " + why};
}

bool waitFor(int fd, short events) {
    pollfd polled{fd, events, 0};
    int ready = -1;
    do ready = ::poll(&polled, 1, kHttpSeconds * 1000);
    while (ready < 0 && errno == EINTR);
    if (ready == 0) errno = ETIMEDOUT;
    return ready > 0;
}

// Empty when connected, else why not.
std::string connectTo(const HttpAddress& address, Socket& out) {
    addrinfo hints{}, *list = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    const int found = ::getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &list);
    if (found != 0) return ::gai_strerror(found);
    std::string why = "no address";
    for (const addrinfo* at = list; at && !why.empty(); at = at->ai_next) {
        Socket socket;
        socket.fd = ::socket(at->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        int error = 0;
        socklen_t size = sizeof(error);
        bool connected = socket.fd >= 0 && ::connect(socket.fd, at->ai_addr, at->ai_addrlen) == 0;
        if (!connected && errno == EINPROGRESS && waitFor(socket.fd, POLLOUT))
            connected = ::getsockopt(socket.fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
        why = connected ? "" : std::strerror(error ? error : errno);
        if (connected) out.fd = std::exchange(socket.fd, -1);
    }
    ::freeaddrinfo(list);
    return why;
}

bool sendAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t sent = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent > 0)
            text.remove_prefix(static_cast<std::size_t>(sent));
        else if ((errno != EAGAIN && errno != EINTR) || !waitFor(fd, POLLOUT))
            return false;
    }
    return true;
}

bool receiveAll(int fd, std::string& out) {
    char bytes[64 * 1024];
    for (;;) {
        const ssize_t got = ::recv(fd, bytes, sizeof(bytes), 0);
        if (got == 0) return true;
        if (got > 0) out.append(bytes, static_cast<std::size_t>(got));
        if (out.size() > kMostAnswer) errno = EFBIG;
        if (out.size() > kMostAnswer || (got < 0 && errno != EAGAIN && errno != EINTR)) return false;
        if (got < 0 && !waitFor(fd, POLLIN)) return false;
    }
}

std::string percentEncoded(std::string_view text) {
    constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (const char byte : text) {
        const bool plain =
            (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9');
        if (plain)
            out += byte;
        else
            out.append("%").append({kHex[(byte >> 4) & 0xF], kHex[byte & 0xF]});
    }
    return out;
}

std::string base64(std::string_view text) {
    constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t at = 0; at < text.size(); at += 3) {
        const std::string_view part = text.substr(at, 3);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 3; ++i)
            bits = bits << 8 | (i < part.size() ? static_cast<unsigned char>(part[i]) : 0U);
        for (std::size_t i = 0; i < 4; ++i)
            out += i <= part.size() ? kLetters[bits >> (18 - 6 * i) & 63] : '=';
    }
    return out;
}

}  // namespace

bool readAddress(const std::string& url, HttpAddress& out) {
    constexpr std::string_view kScheme = "http://";
    std::string_view rest = url;
    if (!rest.starts_with(kScheme)) return false;
    rest.remove_prefix(kScheme.size());
    const std::size_t slash = std::min(rest.find('/'), rest.size());
    std::string_view host = rest.substr(0, slash);
    const std::string_view database = rest.substr(std::min(slash + 1, rest.size()));
    HttpAddress found;
    if (const std::size_t at = host.rfind('@'); at != std::string_view::npos) {
        found.credentials = host.substr(0, at);
        host.remove_prefix(at + 1);
    }
    const std::size_t colon = host.rfind(':');
    if (colon != std::string_view::npos && host.find(']', colon) == std::string_view::npos) {
        found.port = host.substr(colon + 1);
        host = host.substr(0, colon);
    }
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);  // IPv6
    found.host = host;
    if (!database.empty()) found.database = database;
    const auto isName = [](char byte) {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
               byte == '_';
    };
    const bool good = !found.host.empty() && found.host.find_first_of("[]") == std::string::npos &&
                      !found.port.empty() &&
                      found.port.find_first_not_of("0123456789") == std::string::npos &&
                      std::all_of(found.database.begin(), found.database.end(), isName);
    if (good) out = found;
    return good;
}

HttpAnswer postStatement(const HttpAddress& address, const std::string& statement,
                         const std::string& settings, const std::string& body) {
    Socket socket;
    const std::string why = connectTo(address, socket);
    if (!why.empty()) return failed(address, why);
    std::string head = "POST /?wait_end_of_query=1" + settings + "&query=" + percentEncoded(statement) +
                       " HTTP/1.0\r\nHost: " + address.host +
                       "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    if (!address.credentials.empty()) head += "Authorization: Basic " + base64(address.credentials) + "\r\n";
    std::string text;
    if (!sendAll(socket.fd, head + "\r\n") || !sendAll(socket.fd, body) || !receiveAll(socket.fd, text))
        return failed(address, std::strerror(errno));
    HttpAnswer answer;
    const std::size_t space = text.find(' '), end = text.find("\r\n\r\n");
    if (!text.starts_with("HTTP/") || space == std::string::npos || end == std::string::npos)
        return failed(address, "no answer of HTTP");
    std::from_chars(text.data() + space + 1, text.data() + end, answer.status);
    answer.body = text.substr(end + 4);
    return answer;
}

}  // namespace vx::collector
