#include "commonlibc/proxyServer/vx_udp_clients.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "commonlibc/platform/vx_platform_udp.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr const char* kRecordName = "udp client address";
constexpr std::size_t kAddressTextSize = 32;

// A value of the map; its key is the port in it.
struct Client {
    VXUdpAddress address;
    std::int64_t lastHeardMs;
};

void addressText(VXUdpAddress address, char (&text)[kAddressTextSize]) {
    std::snprintf(text, sizeof(text), "%d.%d.%d.%d:%d", address.ip >> 24 & 255, address.ip >> 16 & 255,
                  address.ip >> 8 & 255, address.ip & 255, address.port);
}

bool keepSilentest(const char*, void* value, void* found) {
    auto& silentest = *static_cast<Client**>(found);
    auto* client = static_cast<Client*>(value);
    if (!silentest || client->lastHeardMs < silentest->lastHeardMs) silentest = client;
    return true;
}

// Room for one more: a new record, or that of the client which has been silent longest.
Client* newClient(vxApplication& app) {
    VXMap* map = app.identity.udpClientMap;
    if (vxlb_map_count(map) < kMaxUdpClients) {
        void* block = VXLB_MALLOC(sizeof(Client), kRecordName, -1);
        return block ? new (block) Client{} : nullptr;
    }
    Client* silentest = nullptr;
    vxlb_map_each(map, keepSilentest, &silentest);
    modify_uint16_hashmap(&silentest->address.port, nullptr, map);
    ++app.udp.clientsReplaced;
    return silentest;
}

struct Sending {
    std::string_view text;
    const char* what;
};

bool sendToClient(const char*, void* value, void* argument) {
    const Sending& sending = *static_cast<Sending*>(argument);
    const VXUdpAddress to = static_cast<Client*>(value)->address;
    const std::lock_guard lock(VXUdp.socketMutex);
    if (VXUdp.socket < 0) return false;
    char peer[kAddressTextSize];
    addressText(to, peer);
    VX_TRACE(2, kControlThread, kInfo, "%s %s", sending.what, peer);
    if (!vx_platform_udp_send(VXUdp.socket, sending.text.data(), sending.text.size(), {to.ip, to.port}))
        VX_TRACE(2, kControlThread, kError, "A datagram to %s was not taken", peer);
    return true;
}

bool freeClient(const char*, void* value, void*) {
    VXLB_FREE(value, kRecordName, -1);
    return true;
}

}  // namespace

void addUDPClientSocket(VXUdpAddress sender) {
    vxApplication& app = *vxCurrent();
    VXMap* map = app.identity.udpClientMap;
    if (!map) return;
    const VXGuard lock(map->mutex);
    auto* client = static_cast<Client*>(search_uint16_hashmap(&sender.port, map));
    if (!client) {
        client = newClient(app);
        if (!client) return;
        client->address = sender;
        modify_uint16_hashmap(&client->address.port, client, map);
        VX_TRACE(2, kControlThread, kInfo, "add client socket for function %s", app.identity.funcName);
    }
    client->address = sender;
    client->lastHeardMs = app.udp.lastActivityMs.load(std::memory_order_relaxed);
}

void vxUdpSendToClients(const char* text, std::size_t length, const char* what) {
    Sending sending{{text, length}, what};
    vxlb_map_each(vxCurrent()->identity.udpClientMap, sendToClient, &sending);
}

void SendMessageOnUDPSocket(const char* text) {
    if (text) vxUdpSendToClients(text, std::strlen(text), "Send message to agent");
}

void vxUdpFreeClients(vxApplication& app) {
    VXMap* map = app.identity.udpClientMap;
    if (!map) return;
    vxlb_map_each(map, freeClient, nullptr);
    destroy_hashmap(std::exchange(app.identity.udpClientMap, nullptr));
}

}  // namespace vx
