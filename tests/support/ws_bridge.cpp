#include "tests/support/ws_bridge.h"

#include <libwebsockets.h>
#include <poll.h>

#include <cstdlib>
#include <list>
#include <thread>
#include <vector>

#include "commonlibc/lws_context.h"
#include "tests/support/fake_collector.h"

namespace vx::test {

namespace {

constexpr std::size_t kPart = 16384;

// One pair: who connected, and the plain connection behind.
struct Pair {
    lws* front = nullptr;
    lws* back = nullptr;
    std::string up, down;  // waiting for the back, for the front
};

bool writeWaiting(lws* wsi, std::string& waiting, lws_write_protocol mode) {
    if (waiting.empty()) return true;
    const std::size_t count = std::min(waiting.size(), kPart);
    std::vector<unsigned char> block(LWS_PRE + count);
    std::copy_n(waiting.begin(), count, block.begin() + LWS_PRE);
    if (lws_write(wsi, block.data() + LWS_PRE, count, mode) < 0) return false;
    waiting.erase(0, count);
    if (!waiting.empty()) lws_callback_on_writable(wsi);
    return true;
}

}  // namespace

struct WsBridge::Inside {
    int targetPort = 0;
    int port = 0;
    lws_context* context = nullptr;
    lws_vhost* vhost = nullptr;
    std::atomic<bool> stop{false}, hold{false};
    std::atomic<int> text{0}, binary{0};
    std::list<Pair> pairs;
    std::thread thread;

    static Inside& of(lws* wsi) { return *static_cast<Inside*>(lws_context_user(lws_get_context(wsi))); }
    Pair* pairOf(const lws* wsi) {
        for (Pair& pair : pairs)
            if (pair.front == wsi || pair.back == wsi) return &pair;
        return nullptr;
    }
    void opened(lws* wsi) {
        pairs.emplace_back().front = wsi;
        lws_client_connect_info info{};
        info.context = context;
        info.vhost = vhost;
        info.address = info.host = "127.0.0.1";
        info.port = targetPort;
        info.method = "RAW";
        info.local_protocol_name = "back";
        info.pwsi = &pairs.back().back;
        lws_client_connect_via_info(&info);
    }
    void closed(const lws* wsi) {
        Pair* pair = pairOf(wsi);
        if (!pair) return;
        (pair->front == wsi ? pair->front : pair->back) = nullptr;
        if (pair->front && pair->down.empty())
            lws_set_timeout(pair->front, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
        if (pair->back) lws_callback_on_writable(pair->back);  // it ends behind what waits
        if (!pair->front && !pair->back) pairs.remove_if([&](const Pair& one) { return &one == pair; });
    }
    static int frontCalls(lws* wsi, lws_callback_reasons reason, void*, void* in, std::size_t length) {
        if (reason == LWS_CALLBACK_ESTABLISHED) {
            of(wsi).opened(wsi);
        } else if (reason == LWS_CALLBACK_RECEIVE) {
            Inside& inside = of(wsi);
            if (lws_is_first_fragment(wsi)) ++(lws_frame_is_binary(wsi) ? inside.binary : inside.text);
            if (Pair* pair = inside.pairOf(wsi)) {
                pair->up.append(static_cast<char*>(in), length);
                if (pair->back) lws_callback_on_writable(pair->back);
            }
        } else if (reason == LWS_CALLBACK_SERVER_WRITEABLE) {
            Pair* pair = of(wsi).pairOf(wsi);
            if (pair && !writeWaiting(wsi, pair->down, LWS_WRITE_TEXT)) return -1;
            if (pair && !pair->back && pair->down.empty()) return -1;
        } else if (reason == LWS_CALLBACK_CLOSED) {
            of(wsi).closed(wsi);
        }
        return 0;
    }
    static int backCalls(lws* wsi, lws_callback_reasons reason, void*, void* in, std::size_t length) {
        if (reason == LWS_CALLBACK_RAW_CONNECTED) {
            lws_callback_on_writable(wsi);
        } else if (reason == LWS_CALLBACK_RAW_RX) {
            if (Pair* pair = of(wsi).pairOf(wsi)) {
                pair->down.append(static_cast<char*>(in), length);
                if (pair->front) lws_callback_on_writable(pair->front);
            }
        } else if (reason == LWS_CALLBACK_RAW_WRITEABLE) {
            Pair* pair = of(wsi).pairOf(wsi);
            if (!pair || !writeWaiting(wsi, pair->up, LWS_WRITE_RAW)) return -1;
            if (!pair->front && pair->up.empty()) return -1;
        } else if (reason == LWS_CALLBACK_RAW_CLOSE || reason == LWS_CALLBACK_CLIENT_CONNECTION_ERROR) {
            of(wsi).closed(wsi);
        }
        return 0;
    }
    void holdNow() {
        for (Pair& pair : pairs)
            if (pair.front) lws_rx_flow_control(pair.front, hold ? 0 : 1);
    }
    void run() {
        for (bool held = false; !stop;) {
            lws_service(context, 0);  // ended by holdReading() and the destructor
            if (held != hold) holdNow();
            held = hold;
        }
    }
};

TestCertificate::TestCertificate() : certificate(folder / "localhost.pem"), key(folder / "localhost.key") {
    const std::string command =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost -addext "
        "subjectAltName=DNS:localhost -keyout '" +
        key + "' -out '" + certificate + "' 2>/dev/null";
    if (std::system(command.c_str()) != 0) certificate.clear();
}

WsBridge::WsBridge(int targetPort, const TestCertificate* certificate) : inside_(new Inside) {
    static const lws_protocols kProtocols[] = {
        {"front", Inside::frontCalls, 0, kPart, 0, nullptr, 0},
        {"back", Inside::backCalls, 0, kPart, 0, nullptr, 0},
        {nullptr, nullptr, 0, 0, 0, nullptr, 0},
    };
    inside_->targetPort = targetPort;
    lws_context_creation_info info{};
    info.protocols = kProtocols;
    info.user = inside_.get();
    info.fd_limit_per_thread = 256;
    info.iface = "127.0.0.1";
    info.http_proxy_address = ":0";  // none
    if (certificate) {
        info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
        info.ssl_cert_filepath = certificate->certificate.c_str();
        info.ssl_private_key_filepath = certificate->key.c_str();
    }
    info.port = 0;
    inside_->context = vxMakeLwsContext(info, &inside_->vhost);
    if (!inside_->context) return;
    inside_->port = lws_get_vhost_listen_port(inside_->vhost);
    inside_->thread = std::thread([this] { inside_->run(); });
}

WsBridge::~WsBridge() {
    if (!inside_->context) return;
    inside_->stop = true;
    lws_cancel_service(inside_->context);
    inside_->thread.join();
    vxEndLwsContext(inside_->context);
}

int WsBridge::port() const {
    return inside_->port;
}
int WsBridge::textMessages() const {
    return inside_->text;
}
int WsBridge::binaryMessages() const {
    return inside_->binary;
}
void WsBridge::holdReading(bool on) {
    inside_->hold = on;
    lws_cancel_service(inside_->context);
}

}  // namespace vx::test
