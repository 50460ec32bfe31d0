#include "tools/collector/page_server.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>

#include "commonlibc/lws_context.h"

namespace vx::collector {

namespace {

constexpr const char* kTooMany = "too many questions wait to be answered";
constexpr std::size_t kPart = 16 * 1024;  // of an answer, at a time
constexpr std::size_t kMostAtOnce = 64 * 1024;
constexpr std::size_t kHeadRoom = 4096;
constexpr std::int64_t kTickUs = 1'000'000;
constexpr int kNiceness = 10;
constexpr unsigned kOwnDescriptors = 8;  // of the library itself
constexpr int kStepsOfAnEnd = 2;         // the first may only begin it

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::int64_t nowSeconds() {
    return nowMs() / 1000;
}

std::string headerOf(lws* wsi, lws_token_indexes token) {
    const int length = lws_hdr_total_length(wsi, token);
    if (length <= 0) return "";
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    const int copied = lws_hdr_copy(wsi, text.data(), length + 1, token);
    text.resize(static_cast<std::size_t>(std::max(copied, 0)));
    return text;
}

// The library has decoded the pieces of the query, one for each parameter.
void takeArguments(lws* wsi, PageRequest& request) {
    char piece[kMostHeaders];
    for (int i = 0;; ++i) {
        const int length = lws_hdr_copy_fragment(wsi, piece, sizeof(piece), WSI_TOKEN_HTTP_URI_ARGS, i);
        if (length < 0) return;
        const std::string_view text(piece, static_cast<std::size_t>(length));
        const std::size_t equals = std::min(text.find('='), text.size());
        request.arguments.emplace_back(text.substr(0, equals),
                                       equals < text.size() ? text.substr(equals + 1) : std::string_view());
    }
}

constexpr std::pair<const char*, const char*> kFixedHeaders[] = {
    {"content-security-policy:",
     "default-src 'self'; img-src 'self' data:; object-src 'none'; base-uri 'none'; form-action 'self'; "
     "frame-ancestors 'none'"},
    {"x-content-type-options:", "nosniff"},
    {"x-frame-options:", "DENY"},
    {"referrer-policy:", "same-origin"},
    {"cross-origin-resource-policy:", "same-origin"},
    {"cache-control:", "no-store"},
};

// What a status has to tell beside itself.
constexpr struct {
    int status;
    const char *name, *value;
} kStatusHeaders[] = {{401, "www-authenticate:", "Bearer"}, {405, "allow:", "GET, HEAD, POST"}};

// Writes the head of an answer into a buffer.
class Head {
public:
    explicit Head(lws* wsi) : wsi_(wsi) {}
    bool begin(const PageAnswer& answer, std::size_t length) {
        return lws_add_http_common_headers(wsi_, static_cast<unsigned>(answer.status), answer.type.c_str(),
                                           length, &at_, end()) == 0;
    }
    bool add(const char* name, std::string_view value) {
        return lws_add_http_header_by_name(wsi_, reinterpret_cast<const unsigned char*>(name),
                                           reinterpret_cast<const unsigned char*>(value.data()),
                                           static_cast<int>(value.size()), &at_, end()) == 0;
    }
    bool send() { return lws_finalize_write_http_header(wsi_, start(), &at_, end()) == 0; }

private:
    unsigned char* start() { return buffer_ + LWS_PRE; }
    unsigned char* end() { return buffer_ + sizeof(buffer_); }

    lws* wsi_;
    unsigned char buffer_[LWS_PRE + kHeadRoom];
    unsigned char* at_ = buffer_ + LWS_PRE;
};

}  // namespace

PageServer::PageServer(std::string host, int port, PageHandler handler, PageTurns turns,
                       PagePatience patience)
    : host_(std::move(host)),
      port_(port),
      handler_(std::move(handler)),
      turns_(turns),
      patience_(patience),
      protocols_{} {
    protocols_[0].name = "http";
    protocols_[0].callback = onEvent;
}

PageServer::~PageServer() {
    stop();
}

bool PageServer::start(std::string& error) {
    lws_context_creation_info info{};
    lws_vhost* vhost = nullptr;
    info.port = port_;
    info.iface = host_.c_str();
    info.protocols = protocols_;
    info.user = this;
    info.options = LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
    info.server_string = "vxcollector";
    info.vhost_name = "page";
    info.timeout_secs = static_cast<unsigned>(patience_.request);
    info.timeout_secs_ah_idle = static_cast<unsigned>(patience_.request);  // while headers come
    info.keepalive_timeout = patience_.idle;
    info.max_http_header_data = kMostHeaders;
    info.max_http_header_pool = kMostConnections;
    info.fd_limit_per_thread = kMostConnections + kOwnDescriptors;
    context_ = vxMakeLwsContext(info, &vhost);
    if (!context_) {
        error = "the page cannot listen on " + host_ + ":" + std::to_string(port_);
        return false;
    }
    port_ = lws_get_vhost_listen_port(vhost);
    thread_ = std::thread([this] { run(); });
    return true;
}

void PageServer::stop() {
    if (!context_) return;
    stopped_.store(true, std::memory_order_release);
    lws_cancel_service(context_);
    thread_.join();
    vxEndLwsContext(context_);
    context_ = nullptr;
}

// The tick ends the library's wait, so that a stop and late peers are seen.
void PageServer::run() {
    // Questions wait for the intake when both want the processor.
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kNiceness);
    struct Tick {
        lws_sorted_usec_list_t timer{};
        lws_context* context;
    } tick{.context = context_};
    const auto onTick = [](lws_sorted_usec_list_t* timer) {
        lws_cancel_service(reinterpret_cast<Tick*>(timer)->context);
    };
    for (std::int64_t next = 0; !stopped_.load(std::memory_order_acquire);) {
        if (nowSeconds() >= next) {
            lws_sul_schedule(context_, 0, &tick.timer, onTick, kTickUs);
            next = nowSeconds() + 1;
            endLate();
        }
        callUp();
        if (lws_service(context_, 0) < 0) break;
    }
    lws_sul_cancel(&tick.timer);
}

int PageServer::lineUp(lws* wsi, Exchange& exchange) {
    const PageTurn turn = turns_(exchange.request);
    if (turn == PageTurn::kNow) return answer(wsi, exchange);
    if (!takesMore(turn)) return refuse(wsi, exchange, 503, kTooMany);
    exchange.turn = turn;
    exchange.stage = Stage::kInLine;
    exchange.deadline = nowSeconds() + patience_.answer;
    lws_set_timeout(wsi, NO_PENDING_TIMEOUT, 0);  // the library's, for what is to come: all has
    (turn == PageTurn::kSoon ? soon_ : late_).push_back(wsi);
    return 0;
}

// Answers that nobody reads are no reason to give none to others.
bool PageServer::takesMore(PageTurn turn) {
    const std::int64_t stalled = nowMs() - kStalledMs;
    const std::size_t most = turn == PageTurn::kSoon ? kMostSoon : kMostLate;
    for (int step = 0;; ++step) {
        std::size_t held = 0;
        lws* oldest = nullptr;
        for (const auto& [wsi, exchange] : exchanges_) {
            if (exchange->turn != turn) continue;
            ++held;
            if (mayGiveWay(wsi, stalled) && (!oldest || moved_.at(wsi) < moved_.at(oldest))) oldest = wsi;
        }
        if (held < most || !oldest || step == kStepsOfAnEnd) return held < most;
        lws_set_timeout(oldest, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_SYNC);
    }
}

// It is answered when the library says that it can be written to; the next turn does not wait for that. Who
// has waited for too long has given up, as browsers do: no work for nobody.
void PageServer::callUp() {
    if (soon_.empty() && late_.empty()) return;
    std::deque<lws*>& line = soon_.empty() || (lateNext_ && !late_.empty()) ? late_ : soon_;
    lateNext_ = !lateNext_;
    lws* wsi = line.front();
    line.pop_front();
    Exchange& exchange = *exchanges_.at(wsi);
    exchange.stage = exchange.deadline < nowSeconds() ? Stage::kTooLate : Stage::kCalled;
    exchange.deadline = nowSeconds() + patience_.answer;
    lws_callback_on_writable(wsi);
    lws_cancel_service(context_);
}

void PageServer::drop(lws* wsi) {
    std::erase(soon_, wsi);
    std::erase(late_, wsi);
    exchanges_.erase(wsi);
}

void PageServer::endLate() {
    const std::int64_t now = nowSeconds();
    for (const auto& [wsi, exchange] : exchanges_)
        if (exchange->stage != Stage::kInLine && exchange->deadline < now)
            lws_set_timeout(wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
}

// Whoever sends a request byte by byte, or does not read, keeps nobody else out.
bool PageServer::hasPlace() {
    const std::int64_t stalled = nowMs() - kStalledMs;
    for (int step = 0; step < kStepsOfAnEnd && moved_.size() >= kMostConnections; ++step) {
        lws* oldest = nullptr;
        for (const auto& [wsi, at] : moved_)
            if (mayGiveWay(wsi, stalled) && (!oldest || at < moved_[oldest])) oldest = wsi;
        if (oldest) lws_set_timeout(oldest, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_SYNC);
    }
    return moved_.size() < kMostConnections;
}

bool PageServer::mayGiveWay(lws* wsi, std::int64_t stalled) const {
    const auto at = exchanges_.find(wsi);
    if (at == exchanges_.end()) return true;
    const Stage stage = at->second->stage;
    return stage != Stage::kInLine && stage != Stage::kCalled && moved_.at(wsi) < stalled;
}

int PageServer::onEvent(lws* wsi, lws_callback_reasons reason, void*, void* in, std::size_t length) {
    auto* server = static_cast<PageServer*>(lws_context_user(lws_get_context(wsi)));
    return server ? server->serve(wsi, reason, static_cast<const char*>(in), length) : 0;
}

int PageServer::serve(lws* wsi, lws_callback_reasons reason, const char* in, std::size_t length) {
    switch (reason) {
        case LWS_CALLBACK_FILTER_NETWORK_CONNECTION:
            if (hasPlace()) return 0;
            refused_.fetch_add(1, std::memory_order_relaxed);
            return 1;
        case LWS_CALLBACK_WSI_CREATE:
            moved_[wsi] = nowMs();
            return 0;
        case LWS_CALLBACK_WSI_DESTROY:
            moved_.erase(wsi);
            drop(wsi);
            return 0;
        case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE:
            return -1;
        case LWS_CALLBACK_HTTP:
            return takeRequest(wsi, {in, length});
        case LWS_CALLBACK_HTTP_BODY:
            return takeBody(wsi, {in, length});
        case LWS_CALLBACK_HTTP_BODY_COMPLETION: {
            // Bytes behind a body would bring this again, without end.
            const auto at = exchanges_.find(wsi);
            return at == exchanges_.end() || at->second->stage != Stage::kComing ? -1
                                                                                 : answer(wsi, *at->second);
        }
        case LWS_CALLBACK_HTTP_WRITEABLE:
            return sendSome(wsi);
        case LWS_CALLBACK_CLOSED_HTTP:
            drop(wsi);
            return 0;
        default:
            return 0;
    }
}

int PageServer::takeRequest(lws* wsi, std::string_view path) {
    drop(wsi);
    Exchange& exchange = *(exchanges_[wsi] = std::make_unique<Exchange>());
    PageRequest& request = exchange.request;
    exchange.deadline = nowSeconds() + patience_.request;
    request.path = path;
    request.post = lws_hdr_total_length(wsi, WSI_TOKEN_POST_URI) > 0;
    request.host = headerOf(wsi, WSI_TOKEN_HOST);
    request.origin = headerOf(wsi, WSI_TOKEN_ORIGIN);
    request.contentType = headerOf(wsi, WSI_TOKEN_HTTP_CONTENT_TYPE);
    request.authorization = headerOf(wsi, WSI_TOKEN_HTTP_AUTHORIZATION);
    request.cookie = headerOf(wsi, WSI_TOKEN_HTTP_COOKIE);
    takeArguments(wsi, request);
    exchange.bare = lws_hdr_total_length(wsi, WSI_TOKEN_HEAD_URI) > 0;
    exchange.closes = request.post;  // nothing is taken from behind a body
    const Refusal refusal = refusalOf(wsi, exchange);
    if (refusal.why) return refuse(wsi, exchange, refusal.status, refusal.why);
    if (exchange.expected > 0) return 0;
    return request.post ? answer(wsi, exchange) : lineUp(wsi, exchange);
}

// Why a request is not taken, judged by its head; where its body ends has to be beyond doubt.
PageServer::Refusal PageServer::refusalOf(lws* wsi, Exchange& exchange) {
    const bool post = exchange.request.post;
    if (!post && !exchange.bare && lws_hdr_total_length(wsi, WSI_TOKEN_GET_URI) <= 0)
        return {405, "only GET, HEAD and POST are served"};
    const std::string length = headerOf(wsi, WSI_TOKEN_HTTP_CONTENT_LENGTH);
    const auto [end, code] = std::from_chars(length.data(), length.data() + length.size(), exchange.expected);
    const bool good = code == std::errc{} && end == length.data() + length.size();
    if (!good && (post || !length.empty())) return {411, "a body needs its length"};
    if (lws_hdr_total_length(wsi, WSI_TOKEN_HTTP_TRANSFER_ENCODING) > 0)
        return {411, "a body comes whole, with its length"};
    if (exchange.expected > kMostBody) return {413, "the body has more than 1 MB"};
    if (!post && exchange.expected > 0) return {400, "only a POST has a body"};
    return {};
}

int PageServer::takeBody(lws* wsi, std::string_view part) {
    const auto at = exchanges_.find(wsi);
    if (at == exchanges_.end() || at->second->stage != Stage::kComing) return -1;
    std::string& body = at->second->request.body;
    if (body.size() + part.size() > at->second->expected) return -1;
    body.append(part);
    return 0;
}

std::size_t PageServer::waiting() const {
    std::size_t sum = 0;
    for (const auto& [wsi, exchange] : exchanges_) sum += exchange->answer.body.size();
    return sum;
}

int PageServer::refuse(lws* wsi, Exchange& exchange, int status, const char* why) {
    exchange.answer = pageFault(status, why);
    exchange.closes = true;
    return sendWhole(wsi, exchange);
}

// What else has come on the connection is not read.
int PageServer::sendWhole(lws* wsi, Exchange& exchange) {
    int state = sendHead(wsi, exchange);
    while (state == 0) state = sendSome(wsi);
    return state;
}

int PageServer::answer(lws* wsi, Exchange& exchange) {
    exchange.answer = handler_(exchange.request);
    if (waiting() > kMostWaiting) return refuse(wsi, exchange, 503, "too many answers wait to be taken");
    // At once where it can be: bytes behind a body would end the connection before.
    const bool whole = exchange.closes && exchange.bytes().size() <= kMostAtOnce;
    return whole ? sendWhole(wsi, exchange) : sendHead(wsi, exchange);
}

int PageServer::sendHead(lws* wsi, Exchange& exchange) {
    const PageAnswer& answer = exchange.answer;
    exchange.deadline = nowSeconds() + patience_.answer;
    exchange.stage = Stage::kSending;
    moved_[wsi] = nowMs();
    Head head(wsi);
    bool good = head.begin(answer, exchange.bytes().size());
    for (const auto& [name, value] : kFixedHeaders) good = good && head.add(name, value);
    for (const auto& [status, name, value] : kStatusHeaders)
        if (status == answer.status) good = good && head.add(name, value);
    if (exchange.closes) good = good && head.add("connection:", "close");
    if (!answer.location.empty()) good = good && head.add("location:", answer.location);
    if (!answer.setCookie.empty()) good = good && head.add("set-cookie:", answer.setCookie);
    if (!good || !head.send()) return -1;
    lws_callback_on_writable(wsi);
    return 0;
}

int PageServer::sendSome(lws* wsi) {
    const auto at = exchanges_.find(wsi);
    if (at == exchanges_.end()) return 0;
    Exchange& exchange = *at->second;
    if (exchange.stage == Stage::kCalled) return answer(wsi, exchange);
    if (exchange.stage == Stage::kTooLate) return refuse(wsi, exchange, 503, kTooMany);
    if (exchange.stage != Stage::kSending) return 0;
    if (exchange.bare) return finish(wsi);
    const std::string_view rest = exchange.bytes().substr(exchange.sent);
    const std::size_t length = std::min(rest.size(), kPart);
    unsigned char buffer[LWS_PRE + kPart];
    std::copy_n(rest.data(), length, buffer + LWS_PRE);
    const bool last = length == rest.size();
    if (lws_write(wsi, buffer + LWS_PRE, length, last ? LWS_WRITE_HTTP_FINAL : LWS_WRITE_HTTP) <
        static_cast<int>(length))
        return -1;
    exchange.sent += length;
    moved_[wsi] = nowMs();
    if (last) return finish(wsi);
    lws_callback_on_writable(wsi);
    return 0;
}

int PageServer::finish(lws* wsi) {
    const auto at = exchanges_.find(wsi);
    const bool closes = at->second->closes;
    exchanges_.erase(at);
    return closes || lws_http_transaction_completed(wsi) ? -1 : 0;
}

}  // namespace vx::collector
