#include "tools/collector/page_guard.h"

#include <arpa/inet.h>
#include <strings.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace vx::collector {

namespace {

constexpr std::size_t kKeyBytes = 32;
constexpr std::string_view kBearer = "Bearer ";

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool isAddress(const std::string& text) {
    unsigned char bytes[sizeof(in6_addr)];
    return ::inet_pton(AF_INET, text.c_str(), bytes) == 1 || ::inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

// Empty where the system has no random bytes to give.
std::string randomKey() {
    constexpr char kDigits[] = "0123456789abcdef";
    unsigned char bytes[kKeyBytes];
    if (::getrandom(bytes, sizeof(bytes), 0) != static_cast<ssize_t>(sizeof(bytes))) return "";
    std::string key;
    for (const unsigned char byte : bytes) {
        key += kDigits[byte >> 4];
        key += kDigits[byte & 15];
    }
    return key;
}

// The session's cookie out of all of them.
std::string_view sessionOf(std::string_view cookies) {
    while (!cookies.empty()) {
        std::string_view pair = cookies.substr(0, cookies.find(';'));
        cookies.remove_prefix(std::min(pair.size() + 1, cookies.size()));
        pair.remove_prefix(std::min(pair.find_first_not_of(' '), pair.size()));
        if (pair.starts_with(kSessionCookie) && pair.substr(kSessionCookie.size()).starts_with('='))
            return pair.substr(kSessionCookie.size() + 1);
    }
    return {};
}

}  // namespace

bool sameSecret(std::string_view a, std::string_view b) {
    unsigned different = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < a.size(); ++i)
        different |= static_cast<unsigned char>(a[i] ^ (b.empty() ? 0 : b[i % b.size()]));
    return different == 0;
}

bool isLoopback(const std::string& address) {
    in_addr bytes{};
    return ::inet_pton(AF_INET, address.c_str(), &bytes) == 1 && ntohl(bytes.s_addr) >> 24 == 127;
}

bool readToken(const std::string& path, std::string& token, std::string& error) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
    char line[kMostToken + 2] = "";
    if (!file) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    token = std::fgets(line, sizeof(line), file.get()) ? line : "";
    token.resize(std::min(token.find_first_of("\r\n"), token.size()));
    const auto plain = [](char byte) { return byte > ' ' && byte < 127; };
    if (token.size() < kLeastToken || token.size() > kMostToken ||
        !std::all_of(token.begin(), token.end(), plain)) {
        error = path + ": the first line is no token of " + std::to_string(kLeastToken) + " to " +
                std::to_string(kMostToken) + " plain characters";
        token.clear();
        return false;
    }
    return true;
}

bool PageGuard::knowsHost(std::string_view host) const {
    std::string name(host.substr(0, host.rfind(':')));
    if (host.starts_with('[')) {
        const std::size_t end = host.find(']');
        if (end == host.npos) return false;
        name = host.substr(1, end - 1);
    }
    return isAddress(name) || sameName(name, "localhost") ||
           std::any_of(names_.begin(), names_.end(),
                       [&](const std::string& at) { return sameName(at, name); });
}

bool PageGuard::sameOrigin(const PageRequest& request) {
    return request.origin.empty() || request.origin == "http://" + request.host ||
           request.origin == "https://" + request.host;  // behind a server that ends TLS
}

bool PageGuard::allows(const PageRequest& request, std::int64_t now) {
    if (open()) return true;
    const std::string_view given = request.authorization;
    if (given.starts_with(kBearer) && sameSecret(given.substr(kBearer.size()), token_)) return true;
    const std::string_view key = sessionOf(request.cookie);
    std::erase_if(sessions_, [now](const Session& at) { return at.end <= now; });
    bool found = false;
    for (const Session& session : sessions_) found |= sameSecret(key, session.key);
    return found;
}

std::string PageGuard::login(std::string_view token, std::int64_t now) {
    if (open() || !sameSecret(token, token_)) return "";
    std::string key = randomKey();
    if (key.empty()) return "";
    if (sessions_.size() >= kMostSessions) sessions_.pop_front();
    sessions_.push_back({key, now + kSessionSeconds});
    return key;
}

void PageGuard::logout(const PageRequest& request) {
    const std::string_view key = sessionOf(request.cookie);
    std::erase_if(sessions_, [key](const Session& at) { return sameSecret(key, at.key); });
}

}  // namespace vx::collector
