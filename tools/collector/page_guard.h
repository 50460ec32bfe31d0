// Who may ask: the host that a request names, its origin, and the token.
//
// A page on a loopback address is open to whoever is on the machine, unless a token was given; a page on
// another address always wants one. A browser shows the token once and is given a cookie.
//
//     Host      an address, "localhost", the machine's own name, or a name that was allowed
//     Origin    of a POST: none, or that very host
//
// So another site gets nothing, even one whose name leads here.
//
// Limits    kMostSessions logins; the oldest gives way. Each is good for kSessionSeconds.
// Units     Times are seconds of any clock that does not go back.
// Threads   One at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "tools/collector/page_request.h"

namespace vx::collector {

inline constexpr std::size_t kMostSessions = 64;
inline constexpr std::int64_t kSessionSeconds = 12 * 3600;
inline constexpr std::size_t kLeastToken = 16, kMostToken = 1024;

class PageGuard {
public:
    // `token` empty: none is asked for. `names`: of this machine, as a browser may call it.
    PageGuard(std::string token, std::vector<std::string> names)
        : token_(std::move(token)), names_(std::move(names)) {}

    bool knowsHost(std::string_view host) const;
    // Of a POST.
    static bool sameOrigin(const PageRequest& request);
    bool open() const { return token_.empty(); }
    bool allows(const PageRequest& request, std::int64_t now);
    // The value of a new cookie, or empty: it is another token.
    std::string login(std::string_view token, std::int64_t now);
    void logout(const PageRequest& request);

private:
    struct Session {
        std::string key;
        std::int64_t end;
    };
    const std::string token_;
    const std::vector<std::string> names_;
    std::deque<Session> sessions_;  // oldest first
};

inline constexpr std::string_view kSessionCookie = "vxcollector";

// Compares in a time that does not tell where they differ.
bool sameSecret(std::string_view a, std::string_view b);
// Whether an IPv4 address is one of this machine alone.
bool isLoopback(const std::string& address);
// Reads a token out of a file: its first line. False with the reason in `error`, which never has the token.
bool readToken(const std::string& path, std::string& token, std::string& error);

}  // namespace vx::collector
