#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_encode.h"
#include "commonlibc/vxlb_writer.h"
#include "tools/agent/vxagent.h"
#include "tools/agent/vxagent_headers.h"
#include "tools/agent/vxagent_session.h"
#include "tools/agent/vxagent_udp.h"

using vx::VXWireText;
using vx::agent::Identity;
using vx::agent::isFieldText;
using vx::agent::PutResult;
using vx::agent::RecordQueue;
using vx::agent::Session;
using vx::agent::UdpSession;
using vx::agent::Urgency;

namespace {

std::unique_ptr<Session> makeSession(Identity identity, const vxagent_options& options) {
    if (options.function)
        return std::make_unique<UdpSession>(identity, options.function, options.queue_bytes,
                                            options.retry_max_ms);
    return std::make_unique<Session>(std::move(identity), options.queue_bytes, options.retry_max_ms,
                                     options.transport);
}

constexpr std::int64_t kBeginning = -1;

}  // namespace

// A transaction's number: who the process is at the proxy, and a sequence that begins at the time of the
// start in microseconds. A process that takes the place of another so goes on above its numbers.
struct vxagent {
    vxagent(Identity identity, const vxagent_options& options)
        : pid(identity.pid),
          separators(vx::agent::headerSeparators(identity.agentType)),
          oneAtATime(options.function != nullptr),
          owned(makeSession(std::move(identity), options)),
          session(*owned),
          sequence(static_cast<std::uint64_t>(vx::vxlb_now_us())) {}

    const std::int64_t pid;
    const vx::agent::HeaderSeparators separators;
    const bool oneAtATime;  // a function has one transaction at a time
    const std::unique_ptr<Session> owned;
    Session& session;
    std::atomic<std::uint64_t> sequence;
    std::atomic<std::int64_t> open{0};  // that one; kBeginning before it has a number; 0: none
    std::atomic<std::uint64_t> begun{0}, refused{0};
    std::atomic<std::int64_t> callouts{0};
};

namespace {

constexpr std::size_t kQueueDefault = 4 << 20, kQueueMin = 64 << 10;
constexpr int kRetryMaxDefaultMs = 10000;
constexpr int kStatusOk = 200;
constexpr int kExitByException = 3;  // of the two kinds of such exits, which are written alike
constexpr int kSequenceBits = 46;
constexpr std::uint64_t kSequenceMask = (std::uint64_t{1} << kSequenceBits) - 1;
constexpr std::uint64_t kProcessMask = 0xFFFF, kProcessBase = 0x10000;
constexpr std::size_t kUrlMax = 4096;
constexpr std::size_t kExceptionFixed = 52, kHeadersFixed = 40;  // of the records' fixed parts
constexpr std::size_t kHeadersMax =
    vx::agent::kRecordMax - vx::kFrameOverhead - kHeadersFixed - sizeof("resp") + 1;

VXWireText wire(const char* text) {
    return {text, text ? std::strlen(text) : 0};
}
std::int64_t timeOr(std::int64_t timeUs) {
    return timeUs > 0 ? timeUs : vx::vxlb_now_us();
}
bool reports(const vxagent* agent, std::int64_t transaction) {
    return agent && transaction && agent->session.instrumenting();
}

template <class Encode>
bool put(vxagent& agent, Urgency urgency, Encode&& encode) {
    const PutResult result = agent.session.queue().put(urgency, encode);
    if (result == PutResult::kTakenWake) agent.session.wake();
    if (result == PutResult::kDropped) agent.session.counters().dropped.fetch_add(1);
    return result != PutResult::kDropped;
}

bool mayBegin(vxagent& agent) {
    std::int64_t none = 0;
    return !agent.oneAtATime || agent.open.compare_exchange_strong(none, kBeginning);
}

std::int64_t nextNumber(vxagent& agent) {
    const std::int32_t known = agent.session.procIndex();
    const auto process = static_cast<std::uint64_t>(known >= 0 ? known : agent.pid) & kProcessMask;
    const std::uint64_t sequence = agent.sequence.fetch_add(1, std::memory_order_relaxed) & kSequenceMask;
    return static_cast<std::int64_t>(((process + kProcessBase) << kSequenceBits) + sequence);
}

// The URL with the request's method behind a bar; bars of the URL's own are escaped.
VXWireText urlWithMethod(const vxagent_transaction& transaction, char* out, std::size_t size) {
    vx::VXWriter text(out, size);
    for (const char* at = transaction.url ? transaction.url : ""; *at; ++at) {
        if (*at == '|') {
            text.text("%7C");
        } else {
            text.put(*at);
        }
    }
    if (transaction.method && *transaction.method) text.put('|').text(transaction.method);
    return {out, text.length()};
}

// As much of the stack trace, in whole lines where it has any, as the record has room for.
void cutStackTrace(vx::VXExceptionRecord& exception) {
    std::size_t used = vx::kFrameOverhead + kExceptionFixed;
    for (const VXWireText* text : {&exception.className, &exception.message, &exception.throwingClassName,
                                   &exception.throwingMethodName, &exception.cause})
        used += text->length;
    VXWireText& stack = exception.stackTrace;
    const std::size_t room = vx::agent::kRecordMax - std::min(used, vx::agent::kRecordMax);
    if (stack.length <= room) return;
    stack.length = room;
    while (stack.length && stack.data[stack.length - 1] != '\n') --stack.length;
    if (!stack.length) stack.length = room;
}

void reportHeaders(vxagent* agent, std::int64_t transaction, int status, const char* type,
                   const vxagent_header* headers, std::size_t count) {
    if (!reports(agent, transaction) || (count && !headers)) return;
    char text[kHeadersMax];
    vx::VXHttpRecord http{};
    http.flowpathInstance = transaction;
    http.status = status;
    http.type = wire(type);
    http.buffer = {text, vx::agent::joinHeaders(agent->separators, headers, count, text, sizeof(text))};
    put(*agent, Urgency::kOrdinary,
        [&http](char* out, std::size_t size) { return vx::transactionEncodeHttp(out, size, http); });
}

bool validOptions(const vxagent_options& options) {
    const char* const names[] = {options.application, options.tier, options.server, options.agent,
                                 options.agent_type};
    const bool named = std::all_of(std::begin(names), std::end(names),
                                   [](const char* name) { return name && isFieldText(name); });
    if (options.function && !isFieldText(options.function)) return false;
    return named && options.host && *options.host && options.port > 0 && options.port <= 65535 &&
           options.pid > 0 && options.retry_max_ms > 0 && options.transport >= VXAGENT_TCP &&
           options.transport <= VXAGENT_WSS;
}

void fillDefaults(vxagent_options& options) {
    if (!options.host) options.host = "127.0.0.1";
    if (!options.agent_type) options.agent_type = "Java";
    if (!options.pid) options.pid = getpid();
    if (!options.queue_bytes) options.queue_bytes = kQueueDefault;
    if (!options.retry_max_ms) options.retry_max_ms = kRetryMaxDefaultMs;
    options.queue_bytes = std::max(options.queue_bytes, kQueueMin);
}

}  // namespace

void vxagent_options_init(vxagent_options* options) {
    if (options) *options = vxagent_options{};
}

vxagent* vxagent_open(const vxagent_options* given) {
    if (!given) return nullptr;
    vxagent_options options = *given;
    fillDefaults(options);
    if (!validOptions(options)) return nullptr;
    Identity identity{options.host,       options.port,   options.application,
                      options.tier,       options.server, options.agent,
                      options.agent_type, options.pid,    vx::vxlb_now_ms()};
    std::unique_ptr<vxagent> agent(new (std::nothrow) vxagent(std::move(identity), options));
    if (!agent || !agent->session.start()) return nullptr;
    return agent.release();
}

int vxagent_instrumenting(const vxagent* agent) {
    return agent && agent->session.instrumenting();
}

int64_t vxagent_begin(vxagent* agent, const vxagent_transaction* transaction) {
    if (!agent || !transaction || !agent->session.instrumenting()) return 0;
    if (!mayBegin(*agent)) {
        agent->refused.fetch_add(1);
        return 0;
    }
    char url[kUrlMax];
    vx::VXTransactionStart start{};
    start.flowpathInstance = nextNumber(*agent);
    start.startTime = timeOr(transaction->start_us);
    start.threadId = transaction->thread_id ? transaction->thread_id : gettid();
    start.url = urlWithMethod(*transaction, url, sizeof(url));
    start.fp_header = wire(transaction->caller);
    start.btHeaderValue = wire(transaction->headers);
    start.vxCookieSet = wire(transaction->session_cookie);
    start.kwCookieSet = wire(transaction->key_word_cookie);
    start.correlationHeader = wire(transaction->correlation);
    const bool taken = put(*agent, Urgency::kOrdinary, [&start](char* out, std::size_t size) {
        return vx::transactionStartEncode(out, size, start);
    });
    (taken ? agent->begun : agent->refused).fetch_add(1);
    agent->open.store(taken ? start.flowpathInstance : 0);
    return taken ? start.flowpathInstance : 0;
}

void vxagent_enter(vxagent* agent, int64_t transaction, const char* name, int64_t time_us) {
    if (!reports(agent, transaction)) return;
    vx::VXMethodEntryRecord entry{};
    entry.flowpathInstance = transaction;
    entry.methodName = wire(name);
    entry.time = timeOr(time_us);
    put(*agent, Urgency::kOrdinary,
        [&entry](char* out, std::size_t size) { return vx::MethodEntryEncode(out, size, entry); });
}

void vxagent_leave(vxagent* agent, int64_t transaction, const vxagent_method* method) {
    if (!reports(agent, transaction) || !method) return;
    vx::VXMethodExitRecord exit{};
    exit.flowpathInstance = transaction;
    exit.methodName = wire(method->name);
    exit.backend_header = wire(method->backend);
    exit.status = method->status ? method->status : kStatusOk;
    exit.methodWallTime = method->wall_us;
    exit.fpCPUTime = method->cpu_us;
    exit.endTime = timeOr(method->end_us);
    if (method->callout) {
        exit.calloutDone = 1;
        exit.calloutSeq =
            method->callout_sequence ? method->callout_sequence : agent->callouts.fetch_add(1) + 1;
    }
    put(*agent, Urgency::kOrdinary,
        [&exit](char* out, std::size_t size) { return vx::MethodExitEncode(out, size, exit); });
}

void vxagent_leave_by_exception(vxagent* agent, int64_t transaction, const vxagent_method* method) {
    if (!reports(agent, transaction) || !method) return;
    vx::VXExceptionExitRecord exit{};
    exit.exitType = kExitByException;
    exit.flowpathInstance = transaction;
    exit.methodName = wire(method->name);
    exit.backendName = wire(method->backend);
    exit.methodWallTime = method->wall_us;
    exit.fpCPUTime = method->cpu_us;
    exit.endTime = timeOr(method->end_us);
    put(*agent, Urgency::kOrdinary,
        [&exit](char* out, std::size_t size) { return vx::ExceptionMethodExitEncode(out, size, exit); });
}

void vxagent_report_exception(vxagent* agent, int64_t transaction, const vxagent_exception* given) {
    if (!reports(agent, transaction) || !given) return;
    vx::VXExceptionRecord exception{};
    exception.exceptionInt = given->number;
    exception.flowpathInstance = transaction;
    exception.exceptionTime = timeOr(given->time_us) / 1000;
    exception.exceptionThread = given->thread_id ? given->thread_id : gettid();
    exception.className = wire(given->class_name);
    exception.message = wire(given->message);
    exception.throwingClassName = wire(given->throwing_class);
    exception.throwingMethodName = wire(given->method);
    exception.cause = wire(given->cause);
    exception.stackTrace = wire(given->stack_trace);
    cutStackTrace(exception);
    put(*agent, Urgency::kOrdinary,
        [&exception](char* out, std::size_t size) { return vx::ExceptionEncode(out, size, exception); });
}

void vxagent_request_headers(vxagent* agent, int64_t transaction, const vxagent_header* headers,
                             size_t count) {
    reportHeaders(agent, transaction, 0, "req", headers, count);
}

void vxagent_response_headers(vxagent* agent, int64_t transaction, int status, const vxagent_header* headers,
                              size_t count) {
    reportHeaders(agent, transaction, status ? status : kStatusOk, "resp", headers, count);
}

void vxagent_end(vxagent* agent, int64_t transaction, int status, int64_t end_us, int64_t cpu_us) {
    const bool sends = reports(agent, transaction);
    // Over also when the proxy went away meanwhile: the next one may begin.
    if (std::int64_t ended = transaction; agent && ended) agent->open.compare_exchange_strong(ended, 0);
    if (!sends) return;
    vx::VXTransactionEnd end{};
    end.flowpathInstance = transaction;
    end.status = status ? status : kStatusOk;
    end.endTime = timeOr(end_us);
    end.fpCPUTime = cpu_us;
    put(*agent, Urgency::kEnding,
        [&end](char* out, std::size_t size) { return vx::transactionEndEncode(out, size, end); });
}

int vxagent_flush(vxagent* agent, int timeout_ms) {
    return agent ? agent->session.flush(timeout_ms) : 1;
}

void vxagent_get_statistics(const vxagent* agent, vxagent_statistics* out) {
    if (!out) return;
    *out = vxagent_statistics{};
    if (!agent) return;
    const Session& session = agent->session;
    out->state = session.state();
    out->proc_index = session.procIndex();
    out->begun = agent->begun.load();
    out->refused = agent->refused.load();
    out->sent_records = session.counters().sentRecords.load();
    out->sent_bytes = session.counters().sentBytes.load();
    out->dropped = session.counters().dropped.load();
    out->reconnects = session.counters().reconnects.load();
    out->starts = session.counters().starts.load();
    out->queued_records = session.pending();
    out->queued_bytes = session.queue().filled();
    out->queue_bytes = session.queue().capacity();
}

void vxagent_close(vxagent* agent, int linger_ms) {
    if (!agent) return;
    if (agent->session.inherited()) return agent->session.leave();  // its threads cannot be joined here
    agent->session.stop(linger_ms);
    delete agent;
}
