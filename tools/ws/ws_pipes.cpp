#include "tools/ws/ws_pipes.h"

#include <arpa/inet.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "commonlibc/lws_context.h"

namespace vx::ws {

namespace {

constexpr const char* kProtocol = "VX_ws";
constexpr const char* kLocal = "local";
constexpr int kLeaveSeconds = 10;  // for what a program left behind
constexpr unsigned kServiceBuffer = 16384;
constexpr unsigned kSpareDescriptors = 64;  // of a context, for handshakes and ends under way
constexpr int kTlsUnchecked = LCCSCF_USE_SSL | LCCSCF_ALLOW_SELFSIGNED | LCCSCF_ALLOW_EXPIRED |
                              LCCSCF_SKIP_SERVER_CERT_HOSTNAME_CHECK | LCCSCF_ALLOW_INSECURE;

// A connection: the WebSocket, and our end of the pair. Both are null once they are gone.
struct Pipe {
    lws* ws = nullptr;
    lws* local = nullptr;
    int fd = -1;
    bool stands = false;      // the WebSocket does
    bool localEnded = false;  // the program writes nothing more
    bool held = false;        // the WebSocket is not read
    bool asked = false;       // by a ping behind the last byte whether all was read
    bool answered = false;
    bool wholeLines = false;  // a message ends with a line
    bool within = false;      // a message has begun and not ended
    std::string out, in;      // waiting for the WebSocket, for the program
};

struct Dial {
    int fd;
    std::string host, address;
    int port;
};

std::string systemError(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// The library says only that it failed; this says why, where the address is at fault.
bool canBind(const ListenAt& at, std::string& error) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(at.port));
    if (::inet_pton(AF_INET, at.host.c_str(), &address.sin_addr) != 1) {
        error = "not an IPv4 address: '" + at.host + "'";
        return false;
    }
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const bool good =
        fd >= 0 && ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    if (!good) error = systemError("port " + std::to_string(at.port));
    if (fd >= 0) ::close(fd);
    return good;
}

std::string peerOf(lws* wsi) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    char host[INET_ADDRSTRLEN] = "?";
    if (::getpeername(lws_get_socket_fd(wsi), reinterpret_cast<sockaddr*>(&address), &size) != 0) return host;
    ::inet_ntop(AF_INET, &address.sin_addr, host, sizeof(host));
    return std::string(host) + ":" + std::to_string(ntohs(address.sin_port));
}

}  // namespace

struct WsPipes::Inside {
    lws_context* context = nullptr;
    lws_vhost* vhost = nullptr;
    bool tls = false;
    int news = -1;
    std::thread thread;
    std::atomic<bool> stop{false};
    std::atomic<std::int64_t> lingerUs{0};

    std::mutex mutex;
    std::deque<Accepted> accepted;
    std::vector<Dial> dials;

    // The owner thread's:
    std::list<Pipe> pipes;
    bool lingering = false, over = false, destroying = false;
    struct Timer {
        lws_sorted_usec_list_t sul;
        Inside* inside;
    } timer{};

    static Inside& of(lws* wsi) { return *static_cast<Inside*>(lws_context_user(lws_get_context(wsi))); }
    static Pipe* pipeOf(lws* wsi) { return static_cast<Pipe*>(lws_get_opaque_user_data(wsi)); }
    static int wsCalls(lws* wsi, lws_callback_reasons reason, void*, void* in, std::size_t length);
    static int localCalls(lws* wsi, lws_callback_reasons reason, void*, void*, std::size_t);
    static void onTimer(lws_sorted_usec_list_t* sul);

    bool begin(lws_context_creation_info info);
    void run();
    void startDials();
    bool addPipe(int& theirs);
    void remove(const Pipe& pipe);
    int accept(lws* wsi);
    int receive(Pipe& pipe, const void* in, std::size_t length);
    int writeLocal(Pipe& pipe);
    int readLocal(Pipe& pipe);
    int writeWs(Pipe& pipe);
    static int endWs(Pipe& pipe);
    void wsGone(Pipe& pipe);
    void localGone(Pipe& pipe);
};

bool WsPipes::Inside::begin(lws_context_creation_info info) {
    static const lws_protocols kProtocols[] = {
        {kProtocol, wsCalls, 0, kWsPart, 0, nullptr, 0},
        {kLocal, localCalls, 0, kWsPart, 0, nullptr, 0},
        {nullptr, nullptr, 0, 0, 0, nullptr, 0},
    };
    info.protocols = kProtocols;
    info.user = this;
    info.pt_serv_buf_size = kServiceBuffer;
    info.http_proxy_address = ":0";  // none, whatever the variable http_proxy of the host says
    info.alpn = "http/1.1";
    context = vxMakeLwsContext(info, &vhost);
    if (!context) return false;
    sigset_t all, before;  // signals are the program's
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        vxEndLwsContext(std::exchange(context, nullptr));
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return context != nullptr;
}

void WsPipes::Inside::run() {
    for (;;) {
        startDials();
        if (stop && !lingering) {
            lingering = true;
            timer.inside = this;
            lws_sul_schedule(context, 0, &timer.sul, onTimer, std::max<std::int64_t>(lingerUs, 1));
        }
        if (over || (stop && pipes.empty()) || lws_service(context, 0) < 0) break;
    }
    lws_sul_cancel(&timer.sul);
}

// The library may call this before it waits, if the time is over by then, and would wait on.
void WsPipes::Inside::onTimer(lws_sorted_usec_list_t* sul) {
    Inside& inside = *lws_container_of(sul, Timer, sul)->inside;
    inside.over = true;
    lws_cancel_service(inside.context);
}

void WsPipes::Inside::startDials() {
    std::vector<Dial> wanted;
    {
        const std::lock_guard lock(mutex);
        wanted.swap(dials);
    }
    for (const Dial& dial : wanted) {
        if (pipes.size() >= kWsDialsMost) {
            ::close(dial.fd);
            continue;
        }
        Pipe& pipe = pipes.emplace_back();
        pipe.fd = dial.fd;
        pipe.wholeLines = true;
        const lws_adopt_desc_t desc{vhost, LWS_ADOPT_RAW_FILE_DESC, {dial.fd}, kLocal, nullptr, &pipe};
        pipe.local = lws_adopt_descriptor_vhost_via_info(&desc);
        if (!pipe.local) {
            remove(pipe);
            continue;
        }
        lws_client_connect_info info{};
        info.context = context;
        info.vhost = vhost;
        info.host = info.origin = dial.host.c_str();
        info.address = dial.address.c_str();
        info.port = dial.port;
        info.path = "/";
        info.local_protocol_name = kProtocol;
        info.opaque_user_data = &pipe;
        info.alpn = "http/1.1";
        info.ssl_connection = LCCSCF_HTTP_NO_FOLLOW_REDIRECT | (tls ? kTlsUnchecked : 0);
        pipe.ws = lws_client_connect_via_info(&info);
        if (!pipe.ws) wsGone(pipe);
    }
}

void WsPipes::Inside::remove(const Pipe& pipe) {
    pipes.remove_if([&](const Pipe& one) { return &one == &pipe; });
}

int WsPipes::Inside::accept(lws* wsi) {
    int ends[2];
    if (stop || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return -1;
    Pipe& pipe = pipes.emplace_back();
    pipe.fd = ends[0];
    const lws_adopt_desc_t desc{vhost, LWS_ADOPT_RAW_FILE_DESC, {ends[0]}, kLocal, nullptr, &pipe};
    pipe.local = lws_adopt_descriptor_vhost_via_info(&desc);
    if (!pipe.local) {
        ::close(ends[1]);
        remove(pipe);
        return -1;
    }
    pipe.ws = wsi;
    pipe.stands = true;
    lws_set_opaque_user_data(wsi, &pipe);
    const std::lock_guard lock(mutex);
    accepted.push_back({ends[1], peerOf(wsi)});
    ::eventfd_write(news, 1);
    return 0;
}

int WsPipes::Inside::receive(Pipe& pipe, const void* in, std::size_t length) {
    if (!pipe.local) return 0;  // nobody takes it; the time to leave is bounded
    pipe.in.append(static_cast<const char*>(in), length);
    return writeLocal(pipe);
}

// Hands over what waits for the program; while something is left, the WebSocket is not read.
int WsPipes::Inside::writeLocal(Pipe& pipe) {
    while (!pipe.in.empty()) {
        const ssize_t sent = ::send(pipe.fd, pipe.in.data(), pipe.in.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0 && errno != EAGAIN) return -1;
        if (sent < 0) break;
        pipe.in.erase(0, static_cast<std::size_t>(sent));
    }
    if (!pipe.in.empty()) lws_callback_on_writable(pipe.local);
    if (pipe.ws && pipe.held == pipe.in.empty()) {
        pipe.held = !pipe.in.empty();
        lws_rx_flow_control(pipe.ws, pipe.held ? 0 : 1);
    }
    return !pipe.ws && pipe.in.empty() ? -1 : 0;
}

int WsPipes::Inside::readLocal(Pipe& pipe) {
    char bytes[kWsPart];
    const ssize_t got = ::recv(pipe.fd, bytes, sizeof(bytes), 0);
    if (got < 0) return errno == EAGAIN || errno == EINTR ? 0 : -1;
    pipe.out.append(bytes, static_cast<std::size_t>(got));
    pipe.localEnded = got == 0;
    lws_rx_flow_control(pipe.local, 0);
    if (pipe.stands && pipe.ws) lws_callback_on_writable(pipe.ws);
    return 0;
}

// Everything has gone to the system. The library does not wait for an answer to its close, so it is a ping
// behind the last byte whose answer tells that the other host has read everything.
int WsPipes::Inside::endWs(Pipe& pipe) {
    if (pipe.answered) {
        lws_close_reason(pipe.ws, LWS_CLOSE_STATUS_NORMAL, nullptr, 0);
        return -1;
    }
    if (std::exchange(pipe.asked, true)) return 0;
    lws_set_timeout(pipe.ws, PENDING_TIMEOUT_USER_OK, kLeaveSeconds);
    unsigned char block[LWS_PRE + 1] = {};  // with a byte: the library passes over an answer that has none
    return lws_write(pipe.ws, block + LWS_PRE, 1, LWS_WRITE_PING) < 0 ? -1 : 0;
}

// One frame a call; the library calls when what it had has gone to the system.
int WsPipes::Inside::writeWs(Pipe& pipe) {
    if (pipe.out.empty()) return pipe.localEnded ? endWs(pipe) : 0;
    unsigned char block[LWS_PRE + kWsPart];
    const std::size_t count = std::min(pipe.out.size(), kWsPart);
    std::memcpy(block + LWS_PRE, pipe.out.data(), count);
    int mode = pipe.within ? LWS_WRITE_CONTINUATION : LWS_WRITE_BINARY;
    pipe.within = pipe.wholeLines && pipe.out[count - 1] != '\n';
    if (pipe.within) mode |= LWS_WRITE_NO_FIN;
    if (lws_write(pipe.ws, block + LWS_PRE, count, static_cast<lws_write_protocol>(mode)) < 0) return -1;
    pipe.out.erase(0, count);
    if (!pipe.out.empty() || pipe.localEnded)
        lws_callback_on_writable(pipe.ws);
    else
        lws_rx_flow_control(pipe.local, 1);
    return 0;
}

void WsPipes::Inside::wsGone(Pipe& pipe) {
    pipe.ws = nullptr;
    if (!pipe.local) return remove(pipe);
    if (destroying) return;
    if (pipe.in.empty())
        lws_set_timeout(pipe.local, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
    else
        lws_callback_on_writable(pipe.local);  // it ends behind what waits
}

// The descriptor is closed behind this. What the program left in it, at most what the system holds for a
// pair, still goes out.
void WsPipes::Inside::localGone(Pipe& pipe) {
    pipe.local = nullptr;
    if (!pipe.ws) return remove(pipe);
    if (destroying) return;
    char bytes[kWsPart];
    while (!pipe.localEnded) {
        const ssize_t got = ::recv(pipe.fd, bytes, sizeof(bytes), 0);
        if (got > 0) pipe.out.append(bytes, static_cast<std::size_t>(got));
        if (got == 0 || (got < 0 && errno != EINTR)) pipe.localEnded = true;
    }
    lws_set_timeout(pipe.ws, PENDING_TIMEOUT_USER_OK, pipe.stands ? kLeaveSeconds : LWS_TO_KILL_ASYNC);
    if (pipe.stands) lws_callback_on_writable(pipe.ws);
}

int WsPipes::Inside::wsCalls(lws* wsi, lws_callback_reasons reason, void* /*user*/, void* in,
                             std::size_t length) {
    if (reason == LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION)
        return of(wsi).pipes.size() >= kWsPipesMost ? -1 : 0;
    if (reason == LWS_CALLBACK_ESTABLISHED) return of(wsi).accept(wsi);
    Pipe* pipe = wsi ? pipeOf(wsi) : nullptr;
    if (!pipe) return 0;
    switch (reason) {
        case LWS_CALLBACK_CLIENT_ESTABLISHED:
            pipe->ws = wsi;
            pipe->stands = true;
            return of(wsi).receive(*pipe, "+", 1);
        case LWS_CALLBACK_RECEIVE:
        case LWS_CALLBACK_CLIENT_RECEIVE:
            return of(wsi).receive(*pipe, in, length);
        case LWS_CALLBACK_SERVER_WRITEABLE:
        case LWS_CALLBACK_CLIENT_WRITEABLE:
            return of(wsi).writeWs(*pipe);
        case LWS_CALLBACK_RECEIVE_PONG:
        case LWS_CALLBACK_CLIENT_RECEIVE_PONG:
            pipe->answered = pipe->asked;
            lws_callback_on_writable(wsi);
            return 0;
        case LWS_CALLBACK_CLOSED:
        case LWS_CALLBACK_CLIENT_CLOSED:
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
        case LWS_CALLBACK_WSI_DESTROY:
            lws_set_opaque_user_data(wsi, nullptr);
            of(wsi).wsGone(*pipe);
            return 0;
        default:
            return 0;
    }
}

int WsPipes::Inside::localCalls(lws* wsi, lws_callback_reasons reason, void* /*user*/, void* /*in*/,
                                std::size_t /*length*/) {
    Pipe* pipe = wsi ? pipeOf(wsi) : nullptr;
    if (!pipe) return 0;
    switch (reason) {
        case LWS_CALLBACK_RAW_RX_FILE:
            return of(wsi).readLocal(*pipe);
        case LWS_CALLBACK_RAW_WRITEABLE_FILE:
            return of(wsi).writeLocal(*pipe);
        case LWS_CALLBACK_RAW_CLOSE_FILE:
            lws_set_opaque_user_data(wsi, nullptr);
            of(wsi).localGone(*pipe);
            return 0;
        default:
            return 0;
    }
}

WsPipes::WsPipes() : inside_(new Inside) {}

WsPipes::~WsPipes() {
    end(0);
    if (inside_->news >= 0) ::close(inside_->news);
}

bool WsPipes::listen(const ListenAt& at, std::string& error) {
    const bool tls = !at.certificate.empty() || !at.key.empty();
    for (const std::string& file : {at.certificate, at.key}) {
        if (!tls || ::access(file.c_str(), R_OK) == 0) continue;
        error = systemError("certificate or key '" + file + "'");
        return false;
    }
    if (!canBind(at, error)) return false;
    inside_->news = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    lws_context_creation_info info{};
    info.port = at.port;
    info.iface = at.host == "0.0.0.0" ? nullptr : at.host.c_str();
    info.vhost_name = "http";
    info.fd_limit_per_thread = 2 * kWsPipesMost + kSpareDescriptors;
    if (tls) {
        info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
        info.ssl_cert_filepath = at.certificate.c_str();
        info.ssl_private_key_filepath = at.key.c_str();
    }
    if (inside_->news >= 0 && inside_->begin(info)) return true;
    error = "port " + std::to_string(at.port) + ": cannot listen";
    if (tls) error += ", or '" + at.certificate + "' and '" + at.key + "' are no certificate and its key";
    return false;
}

int WsPipes::port() const {
    return inside_->vhost ? lws_get_vhost_listen_port(inside_->vhost) : 0;
}

int WsPipes::news() const {
    return inside_->news;
}

bool WsPipes::take(Accepted& out) {
    const std::lock_guard lock(inside_->mutex);
    if (inside_->accepted.empty()) return false;
    out = std::move(inside_->accepted.front());
    inside_->accepted.pop_front();
    eventfd_t count = 0;
    if (inside_->accepted.empty()) ::eventfd_read(inside_->news, &count);
    return true;
}

bool WsPipes::open(bool tls) {
    lws_context_creation_info info{};
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.vhost_name = "proxy";
    info.fd_limit_per_thread = 2 * kWsDialsMost + kSpareDescriptors;
    inside_->tls = tls;
    if (tls) {
        info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT | LWS_SERVER_OPTION_DISABLE_OS_CA_CERTS |
                       LWS_SERVER_OPTION_PEER_CERT_NOT_REQUIRED;
        info.client_ssl_cipher_list = "DEFAULT:@SECLEVEL=1";
    }
    return inside_->begin(info);
}

int WsPipes::dial(const std::string& host, const std::string& address, int port) {
    int ends[2];
    if (!inside_->context || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0)
        return -1;
    {
        const std::lock_guard lock(inside_->mutex);
        inside_->dials.push_back({ends[0], host, address, port});
    }
    lws_cancel_service(inside_->context);
    return ends[1];
}

void WsPipes::end(std::int64_t lingerMs) {
    if (!inside_->context) return;
    inside_->lingerUs = lingerMs * 1000;
    inside_->stop = true;
    lws_cancel_service(inside_->context);
    inside_->thread.join();
    inside_->destroying = true;
    vxEndLwsContext(std::exchange(inside_->context, nullptr));
    inside_->vhost = nullptr;
    for (const Accepted& left : inside_->accepted) ::close(left.fd);
    for (const Dial& left : inside_->dials) ::close(left.fd);
    inside_->accepted.clear();
    inside_->dials.clear();
    inside_->pipes.clear();
}

}  // namespace vx::ws
