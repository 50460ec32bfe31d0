#include "commonlibc/proxyServer/vx_udp_ruckus.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "commonlibc/control_outbox.h"
#include "commonlibc/proxyServer/vx_udp_clients.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kTextSize = 2048, kKeySize = 64, kAnswerSize = 256;
constexpr unsigned kMaxMessages = 64;
constexpr std::size_t kHeartBeatSize = 16384;
constexpr std::int64_t kGraceMs = 2000, kMsPerSecond = 1000, kMaxDurationS = 86400;
constexpr const char* kRecordName = "ruckus message";
constexpr const char* kSuccess = "Success";

// A stored message; the map's key is its id.
struct Ruckus {
    char id[kKeySize];
    std::int64_t arrivedMs, durationS;
    bool ended;
    std::size_t length;
    char text[kTextSize];
};

// The value of a field "name=value" of a text whose fields are apart by ";"; empty without one.
std::string_view fieldOf(std::string_view text, std::string_view name) {
    while (!text.empty()) {
        const std::string_view field = text.substr(0, text.find_first_of(";\n"));
        text.remove_prefix(std::min(field.size() + 1, text.size()));
        if (field.size() > name.size() && field.starts_with(name) && field[name.size()] == '=')
            return field.substr(name.size() + 1);
    }
    return {};
}

bool takeId(std::string_view text, char (&id)[kKeySize]) {
    const std::string_view value = fieldOf(text, "RKMID").substr(0, kKeySize - 1);
    *std::copy(value.begin(), value.end(), id) = '\0';
    if (!value.empty()) return true;
    VX_TRACE(1, kControlThread, kError, "RKMID is missing in message %.*s", static_cast<int>(text.size()),
             text.data());
    return false;
}

std::int64_t durationOf(std::string_view text) {
    const std::string_view value = fieldOf(text, "duration");
    std::int64_t seconds = 0;
    std::from_chars(value.data(), value.data() + value.size(), seconds);
    return std::clamp<std::int64_t>(seconds, 0, kMaxDurationS);
}

bool fits(std::string_view text, std::string_view name, const char* own) {
    const std::string_view wanted = fieldOf(text, name);
    return wanted.empty() || (own && wanted == own);
}

bool isForClients(const VXIdentity_t& identity, std::string_view text) {
    if (!fits(text, "vxAppServerHost", identity.appServerName)) return false;
    if (identity.isUDP) return fits(text, "funcName", identity.funcName);
    return fits(text, "tierName", identity.tierName) && fits(text, "agentName", identity.agentName);
}

bool isOver(const Ruckus& ruckus, std::int64_t nowMs) {
    return nowMs - ruckus.arrivedMs > ruckus.durationS * kMsPerSecond + kGraceMs;
}

void SendRuckusResponse(vxApplication& app, const char* id, std::string_view status) {
    char text[kAnswerSize];
    VXWriter out(text, sizeof(text));
    out.text("VexalineMessage 2.0;RKMID=").text(id).text(";status=").bytes(status.data(), status.size());
    out.put(';').endLine();
    vxOutboxPut(app, text, out.length());
}

Ruckus* find(const char* id, const VXMap* map) {
    return static_cast<Ruckus*>(search_hashmap(id, map));
}

// The record of that id, made if it is not there; null when there are too many. Map's mutex held.
Ruckus* recordOf(const char* id, VXMap* map) {
    if (Ruckus* known = find(id, map)) return known;
    if (vxlb_map_count(map) >= kMaxMessages) {
        VX_TRACE(1, kControlThread, kError, "Ruckus message refused: %u are stored", kMaxMessages);
        return nullptr;
    }
    void* block = VXLB_MALLOC(sizeof(Ruckus), kRecordName, -1);
    if (!block) return nullptr;
    auto* ruckus = new (block) Ruckus;
    std::snprintf(ruckus->id, sizeof(ruckus->id), "%s", id);
    modify_hashmap(ruckus->id, ruckus, map);
    return ruckus;
}

void store(const char* id, std::string_view text, VXMap* map) {
    const VXGuard lock(map->mutex);
    Ruckus* ruckus = recordOf(id, map);
    if (!ruckus) return;
    ruckus->arrivedMs = vxlb_steady_ms();
    ruckus->durationS = durationOf(text);
    ruckus->ended = false;
    ruckus->length = text.copy(ruckus->text, kTextSize);
}

void markEnded(const char* id, VXMap* map) {
    const VXGuard lock(map->mutex);
    if (Ruckus* ruckus = find(id, map)) ruckus->ended = true;
}

// Calls each(text) for what is stored for the clients of the current context.
template <class Each>
void eachPending(Each each) {
    vxApplication& app = *vxCurrent();
    struct Walk {
        const VXIdentity_t& identity;
        std::int64_t nowMs;
        Each& each;
    } walk{app.identity, vxlb_steady_ms(), each};
    vxlb_map_each(
        app.ruckusMap,
        [](const char*, void* value, void* argument) {
            const auto& ruckus = *static_cast<Ruckus*>(value);
            auto& to = *static_cast<Walk*>(argument);
            const std::string_view text(ruckus.text, ruckus.length);
            if (!ruckus.ended && !isOver(ruckus, to.nowMs) && isForClients(to.identity, text)) to.each(text);
            return true;
        },
        &walk);
}

// Takes one that is over out of the map; null when there is none.
Ruckus* takeOver(VXMap* map, std::int64_t nowMs) {
    if (!map) return nullptr;
    struct Search {
        std::int64_t nowMs;
        Ruckus* found;
    } search{nowMs, nullptr};
    const VXGuard lock(map->mutex);
    vxlb_map_each(
        map,
        [](const char*, void* value, void* argument) {
            auto& looked = *static_cast<Search*>(argument);
            if (isOver(*static_cast<Ruckus*>(value), looked.nowMs))
                looked.found = static_cast<Ruckus*>(value);
            return !looked.found;
        },
        &search);
    if (search.found) modify_hashmap(search.found->id, nullptr, map);
    return search.found;
}

}  // namespace

void HandleVexalineMessage(char* line) {
    handleRuckusMsgforUDPClient(line, fieldOf(line, "action") == "stop" ? 0 : 1);
}

void handleRuckusMsgforUDPClient(const char* message, int isNew) {
    vxApplication& app = *vxCurrent();
    const std::string_view text = std::string_view(message).substr(0, kTextSize - 1);
    char id[kKeySize];
    if (!app.ruckusMap || !takeId(text, id)) return;
    if (isNew)
        store(id, text, app.ruckusMap);
    else
        markEnded(id, app.ruckusMap);
    if (isForClients(app.identity, text))
        vxUdpSendToClients(text.data(), text.size(), "Send message to agent");
}

void record_ruckus_response_from_agent(std::string_view text) {
    vxApplication& app = *vxCurrent();
    char id[kKeySize];
    if (!app.ruckusMap || !takeId(text, id)) return;
    bool stands = false;
    {
        const VXGuard lock(app.ruckusMap->mutex);
        const Ruckus* ruckus = find(id, app.ruckusMap);
        stands = ruckus && !isOver(*ruckus, vxlb_steady_ms());
    }
    if (!stands) {
        VX_TRACE(1, kControlThread, kInfo, "Ruckus message expired for RKMID %s", id);
        return;
    }
    VX_TRACE(1, kControlThread, kInfo, "Got response from agent %.*s", static_cast<int>(text.size()),
             text.data());
    SendRuckusResponse(app, id, fieldOf(text, "status"));
}

void send_ruckus_to_new_connected_agent(std::int32_t index) {
    char text[32];
    const int length = std::snprintf(text, sizeof(text), "AppIndex:%d", index);
    vxUdpSendToClients(text, static_cast<std::size_t>(length), "Send message to agent");
    const auto send = [](std::string_view pending) {
        vxUdpSendToClients(pending.data(), pending.size(), "Send message to agent");
    };
    eachPending(send);
}

void send_heart_beat_to_new_connected_agent() {
    char text[kHeartBeatSize];
    VXWriter msgForAgent(text, sizeof(text));
    msgForAgent.text("Heart Beat Received");
    const auto add = [&](std::string_view pending) { msgForAgent.bytes(pending.data(), pending.size()); };
    eachPending(add);
    vxUdpSendToClients(text, msgForAgent.length(), "Send HB message to agent");
}

void vxUdpExpireRuckus(std::int64_t nowMs) {
    vxApplication& app = *vxCurrent();
    while (Ruckus* ruckus = takeOver(app.ruckusMap, nowMs)) {
        VX_TRACE(1, kControlThread, kInfo, "removing record of ruckus message for RKMID %s ", ruckus->id);
        SendRuckusResponse(app, ruckus->id, kSuccess);
        VXLB_FREE(ruckus, kRecordName, -1);
    }
}

void vxUdpFreeRuckus(vxApplication& app) {
    vxlb_map_each(
        app.ruckusMap,
        [](const char*, void* value, void*) {
            VXLB_FREE(value, kRecordName, -1);
            return true;
        },
        nullptr);
    destroy_hashmap(std::exchange(app.ruckusMap, nullptr));
}

}  // namespace vx
