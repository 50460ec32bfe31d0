#include "commonlibc/proxyServer/vx_udp_message.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/flowpath/VXPerThreadData.h"
#include "commonlibc/proxyServer/vx_udp_clients.h"
#include "commonlibc/proxyServer/vx_udp_functions.h"
#include "commonlibc/proxyServer/vx_udp_header.h"
#include "commonlibc/proxyServer/vx_udp_refusals.h"
#include "commonlibc/proxyServer/vx_udp_ruckus.h"
#include "commonlibc/proxyServer/vx_udp_settings.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_decimal.h"
#include "commonlibc/vxlb_decode.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr std::size_t kCookieSize = 256;

// A message on its way to its handler; `app` is current.
struct Message {
    const VXUdpHeader& header;
    VXByteView bytes;
    vxApplication& app;
    std::int32_t index;
    VXMoment now;  // when its datagram was taken up

    bool isAttached() const { return header.attached != 0; }
    // Header and newline taken off.
    std::string_view payload() const {
        const auto at = static_cast<std::size_t>(header.whLen);
        return bytes.size() > at ? std::string_view(bytes.data() + at, bytes.size() - at - 1)
                                 : std::string_view();
    }
};

// Decode lock held. The key that finds the request's flowpath; null when there is none, or the function has
// been taken out while the lock was waited for.
const char* lookupKey(const Message& message) {
    char* key = message.app.identity.lookupKey;
    if (!message.isAttached()) return vxUdpStands(message.index, message.app) ? key : nullptr;
    if (key) *vxlb_put_decimal(key, message.header.requestKey) = '\0';
    return key;
}

// Decode lock held, see Target.
void onRecords(const Message& message) {
    const char* key = lookupKey(message);
    if (!key) return;
    const auto at = static_cast<std::size_t>(message.header.whLen);
    vxDecodeMessageAt(message.now, message.bytes.data() + at,
                      static_cast<std::int32_t>(message.bytes.size() - at), 0, 1, key);
}

void onRuckusResponse(const Message& message) {
    const std::string_view payload = message.payload();
    record_ruckus_response_from_agent(payload.substr(payload.empty() ? 0 : 1));
}

void onPendingRuckus(const Message& message) {
    send_ruckus_to_new_connected_agent(message.index);
}

void onHeartbeat(const Message& /*message*/) {
    send_heart_beat_to_new_connected_agent();
}

template <int part>
void onSettings(const Message& message) {
    vxUdpAnswerSettings(message.index, part);
}

// The flowpath of the request; decode lock held.
const vxTD* findFlowpath(const Message& message) {
    const char* key = lookupKey(message);
    return key ? vxFindSlot(key, std::strlen(key)) : nullptr;
}

// The session of the request's flowpath, as its cookie is to be set.
void onCookieQuery(const Message& message) {
    char text[kCookieSize];
    int length = 0;
    {
        const VXGuard decode(message.app.decoder.decodeMutex);
        if (const vxTD* slot = findFlowpath(message))
            length = std::snprintf(text, sizeof(text), "VXcookieValue:%lld-%lld-%lld-%d-%d-%d-%d-%d-%d-%d",
                                   static_cast<long long>(slot->sessionFP),
                                   static_cast<long long>(slot->testRunId),
                                   static_cast<long long>(slot->sessionStartTime), slot->sessionCaptured,
                                   slot->sessionCategory, slot->tlCategory, slot->totalFpcount,
                                   slot->cookieTierId, slot->cookieServerId, slot->cookieAppId);
    }
    if (length > 0) vxUdpSendToClients(text, static_cast<std::size_t>(length), "Send message to agent");
}

// Nothing takes log lines to the collector: what an agent logs stands in the trace.
void dumpLogMessage(const vxTD& slot, std::string_view text) {
    VX_TRACE(2, kAgentLog, kInfo, "Log of flowpath %s: %.*s", slot.flowpathInstanceStr,
             static_cast<int>(text.size()), text.data());
}

void onLogText(const Message& message) {
    const VXGuard decode(message.app.decoder.decodeMutex);
    if (const vxTD* slot = findFlowpath(message)) dumpLogMessage(*slot, message.payload());
}

constexpr void (*kHandlers[])(const Message&) = {
    onRecords,  // VXWrapType, from 0
    onRuckusResponse,
    onPendingRuckus,
    onHeartbeat,
    onSettings<kSettingsKeyWord>,
    onSettings<kSettingsSession>,
    onCookieQuery,
    onLogText,
    onSettings<kSettingsAll>,
};

// The context that the messages of a datagram are for, kept from ending, and current, until another is
// taken or the scope ends. Its decode lock is held over records that follow one another.
class Target {
public:
    explicit Target(VXUdpAddress sender) : root_(vxCurrent()), sender_(sender), now_(vxlb_moment()) {}
    ~Target() { leave(); }
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    // The context of a message; null when there is none.
    vxApplication* take(const VXUdpHeader& header, std::int32_t index) {
        const bool attached = header.attached != 0;
        if (attached && header.messageType == 0 && header.requestKey == 0) return nullptr;
        if (app_ && attached_ == attached && index_ == index) return app_;
        leave();
        attached_ = attached;
        index_ = index;
        app_ = attached ? vxUdpAttached(index) : vxUdpPin(index);
        if (app_) hearOf();
        return app_;
    }

    // Before a message is taken up: everything but records of a known context goes on without the lock.
    void prepare(bool records) {
        if (!records) decode_.reset();
    }
    void lockDecode() {
        if (!decode_) decode_.emplace(app_->decoder.decodeMutex);
    }

    VXMoment now() const { return now_; }

private:
    void hearOf() {
        vxSetCurrent(app_);
        app_->udp.lastActivityMs.store(now_.steadyMs, std::memory_order_relaxed);
        addUDPClientSocket(sender_);
    }
    void leave() {
        decode_.reset();
        vxSetCurrent(root_);
        if (app_ && !attached_) vxUdpUnpin(*app_);
        app_ = nullptr;
    }

    vxApplication* const root_;
    const VXUdpAddress sender_;
    const VXMoment now_;
    vxApplication* app_ = nullptr;
    bool attached_ = false;
    std::int32_t index_ = kWrapIndexUnknown;
    std::optional<VXGuard> decode_;
};

// The index that the message gives, or what its registration gets; -1 refuses it.
std::int32_t indexOf(const VXUdpHeader& header) {
    if (header.contextIndex != kWrapIndexUnknown) return header.contextIndex;
    vxApplication* former = vxCurrent();
    const std::int32_t index = record_process_with_ndc_conn(header);
    vxSetCurrent(former);
    return index;
}

void refuse() {
    if (vxUdpTracesRefusal()) VX_TRACE(1, kControlThread, kError, "Failed to process data from client..");
    vxUdpCountRefusal();
}

void handle(VXByteView bytes, Target& target) {
    VXUdpHeader header;
    if (!get_ws_param_values(bytes, header)) {
        if (vxUdpTracesRefusal()) VX_TRACE(1, kControlThread, kError, "Error in parsing data from client..");
        return refuse();
    }
    const bool records = header.messageType == static_cast<std::int16_t>(VXWrapType::kRecords);
    target.prepare(records && header.contextIndex != kWrapIndexUnknown);
    const std::int32_t index = indexOf(header);
    vxApplication* app = index >= 0 ? target.take(header, index) : nullptr;
    if (!app) return refuse();
    if (records) target.lockDecode();
    const auto type = static_cast<std::size_t>(static_cast<std::uint16_t>(header.messageType));
    if (type < std::size(kHandlers)) kHandlers[type]({header, bytes, *app, index, target.now()});
}

}  // namespace

void decode_udp_Message(const char* buffer, std::int32_t length, VXUdpAddress sender) {
    Target target(sender);
    handle(VXByteView(buffer, static_cast<std::size_t>(length)), target);
}

void decode_udp_Message_wrapper(const char* buffer, std::int32_t length, VXUdpAddress sender) {
    if (length < static_cast<std::int32_t>(kWrapDatagramMin)) return refuse();
    const VXByteView datagram(buffer, static_cast<std::size_t>(length));
    Target target(sender);
    std::size_t position = 0;
    VXByteView message;
    while (vxUdpNextMessage(datagram, position, message)) handle(message, target);
}

}  // namespace vx
