#include "commonlibc/VXProtocol.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::string_view kSeparators = ", \t";
constexpr int kAppendSlots = 3;
constexpr int kMaxItems = 10;
constexpr int kMaxReplyFields = 10;
constexpr int kDefaultPort = 443;
constexpr std::size_t kListSize = 1024;
constexpr std::size_t kNameSize = 64;

struct ProtocolRow {
    const char* name;
    int number;
    std::atomic<std::int32_t> VXBCISetting_t::*port;
};
constexpr ProtocolRow kProtocols[] = {
    {"TCP", kProtocolTCP, &VXBCISetting_t::vxcPort},
    {"WS", kProtocolWS, &VXBCISetting_t::wsPort},
    {"WSS", kProtocolWSS, &VXBCISetting_t::wssPort},
};

const ProtocolRow* rowOf(const char* name) {
    for (const ProtocolRow& row : kProtocols)
        if (std::strcmp(row.name, name) == 0) return &row;
    return nullptr;
}

const ProtocolRow* rowOf(int number) {
    for (const ProtocolRow& row : kProtocols)
        if (row.number == number) return &row;
    return nullptr;
}

void append(std::int32_t (&slots)[kProtocolSlots], int protocol) {
    if (!rowOf(protocol)) return;
    for (int i = 0; i < kAppendSlots; ++i) {
        if (slots[i] != 0) continue;
        slots[i] = protocol;
        return;
    }
}

const ProtocolRow& rowInUse() {
    const ProtocolRow* row = rowOf(vxCurrent()->control.ActiveAgentProtocolIndex.load());
    return row ? *row : kProtocols[0];
}

// One "NAME:port" of a list.
struct ProtocolItem {
    const ProtocolRow* row;  // null: the name is unknown
    int port;                // 0: none, or not a port
    char name[kNameSize];
};

ProtocolItem readItem(char* text) {
    ProtocolItem item{};
    const char* port = split_key_value_colon(text, item.name, sizeof(item.name));
    item.row = rowOf(item.name);
    const long value = port ? std::strtol(port, nullptr, 10) : 0;
    item.port = value >= 1 && value <= 65535 ? static_cast<int>(value) : 0;
    return item;
}

void appendToString(const ProtocolItem& item) {
    char(&text)[kProtocolsTextSize] = vxCurrent()->VXSys.supportedProtocolsString;
    const std::size_t held = std::strlen(text);
    const int added = std::snprintf(text + held, sizeof(text) - held, "%s%s:%d", held ? "," : "",
                                    item.row->name, item.port);
    if (added >= 0 && held + static_cast<std::size_t>(added) < sizeof(text)) return;
    text[held] = '\0';
    VX_TRACE(1, kControlThread, kError, "No room for protocol '%s' in the list of supported protocols",
             item.row->name);
}

void setPort(const ProtocolItem& item) {
    (vxCurrent()->VXBCISetting.*item.row->port).store(item.port, std::memory_order_relaxed);
}

// The items of the field "supportedProtocols" of a reply.
void takeOfferedProtocols(char* list) {
    char* items[kMaxItems];
    const int count = vxlb_get_tokens_with_multi_delimiter(list, items, ",", kMaxItems);
    if (count < 1) {
        VX_TRACE(1, kControlThread, kError,
                 "controlBreak connection is closed from VXC due to 'num_fields' less than 2.");
        return;
    }
    for (int i = 0; i < count; ++i) {
        const ProtocolItem item = readItem(items[i]);
        VX_TRACE(1, kControlThread, kInfo, "sPPVXC->protocolName = [%s], sPPVXC->protocolPort = [%d]",
                 item.name, item.port);
        if (!item.row || item.port == 0) continue;
        setPort(item);
        setSupportedProtocolVXCArray(item.row->number);
    }
}

void takeReplyFields(const char* line) {
    char* copy = vxlb_strdup(line);
    if (!copy) return;
    char* fields[kMaxReplyFields];
    const int count = vxlb_get_tokens_with_multi_delimiter(copy, fields, ";", kMaxReplyFields);
    for (int i = 0; i < count; ++i) {
        char key[kNameSize];
        char* value = split_key_value(fields[i], key, sizeof(key));
        if (value && std::strcmp(key, "supportedProtocols") == 0) {
            value[std::strcspn(value, "\r\n")] = '\0';
            takeOfferedProtocols(value);
        } else {
            VX_TRACE(2, kControlThread, kInfo, "No negotiation of protocols supported.");
        }
    }
    VXLB_FREE(copy, "text copy", -1);
}

bool agentHas(const VXCollectors_t& collectors, std::int32_t protocol) {
    for (const std::int32_t own : collectors.supportedProtocolArray)
        if (own == protocol) return true;
    VX_TRACE(1, kControlThread, kInfo,
             "VXC protocol - %d, is not in Agent supported protocol array so moving", protocol);
    return false;
}

// The protocol of the match, -1 without one. An empty slot matches an empty slot.
int matchProtocols(const VXCollectors_t& collectors) {
    for (const std::int32_t offered : collectors.supportedProtocolVXCArray)
        if (agentHas(collectors, offered)) return offered;
    return -1;
}

}  // namespace

bool upDateAgentSupportedProtocolData(const char* list, bool* whole) {
    char copy[kListSize];
    vxlb_copy_text(copy, sizeof(copy), list);
    char* items[kMaxItems];
    const int count = vxlb_get_tokens_with_multi_delimiter(copy, items, kSeparators.data(), kMaxItems);
    bool replaced = false;
    for (int i = 0; i < count; ++i) {
        const ProtocolItem item = readItem(items[i]);
        if (!item.row || item.port == 0) {
            VX_TRACE(1, kControlThread, kError, "Protocol '%s' needs a known name and a port, ignored",
                     items[i]);
            if (whole) *whole = false;
            continue;
        }
        if (!replaced) vxClearAgentProtocols();
        replaced = true;
        setPort(item);
        setSupportedProtocolArray(item.row->number);
        appendToString(item);
    }
    return replaced;
}

void updateANYAgentSupportedProtocolData(int protocol) {
    vxClearAgentProtocols();
    const ProtocolRow* row = rowOf(protocol);
    if (!row) return;
    vxApplication& app = *vxCurrent();
    std::atomic<std::int32_t>& port = app.VXBCISetting.*row->port;
    if (port.load(std::memory_order_relaxed) < 1) port.store(kDefaultPort, std::memory_order_relaxed);
    setSupportedProtocolArray(protocol);
    vxlb_copy_text(app.VXSys.supportedProtocolsString, kProtocolsTextSize, row->name);
}

std::string vxWithPort(std::string_view list, int port) {
    const std::string name = std::string(rowInUse().name) + ':';
    std::string text;
    while (!list.empty()) {
        const std::size_t blank = std::min(list.find_first_not_of(kSeparators), list.size());
        const std::size_t end = std::min(list.find_first_of(kSeparators, blank), list.size());
        const std::string_view item = list.substr(blank, end - blank);
        text.append(list.substr(0, blank));
        text.append(item.starts_with(name) ? name + std::to_string(port) : item);
        list.remove_prefix(end);
    }
    return text;
}

void vxTakePort(int port) {
    vxApplication& app = *vxCurrent();
    (app.VXBCISetting.*rowInUse().port).store(port, std::memory_order_relaxed);
    char(&held)[kProtocolsTextSize] = app.VXSys.supportedProtocolsString;
    const std::string text = vxWithPort(held, port);
    if (text.size() < sizeof(held)) vxlb_copy_text(held, sizeof(held), text.c_str());
}

void vxClearAgentProtocols() {
    vxApplication& app = *vxCurrent();
    for (std::int32_t& slot : app.collectors.supportedProtocolArray) slot = 0;
    app.VXSys.supportedProtocolsString[0] = '\0';
}

void vxClearCollectorProtocols() {
    for (std::int32_t& slot : vxCurrent()->collectors.supportedProtocolVXCArray) slot = 0;
}

void setSupportedProtocolArray(int protocol) {
    append(vxCurrent()->collectors.supportedProtocolArray, protocol);
}

void setSupportedProtocolVXCArray(int protocol) {
    append(vxCurrent()->collectors.supportedProtocolVXCArray, protocol);
}

int setProtocolFromResponseMessage(const char* line, void (*cleanup)()) {
    if (!line) return 0;
    takeReplyFields(line);

    vxApplication& app = *vxCurrent();
    const int match = matchProtocols(app.collectors);
    if (match < 0) {
        VX_TRACE(1, kControlThread, kWarning,
                 "WARNING:- VXC Protocol are present.Hence, Control Connection will Persist");
        return 0;
    }
    const int presentPort = getProtocolPort(app.control.ActiveAgentProtocolIndex.load());
    setActiveProtocolIndex(match);
    if (presentPort == getProtocolPort(match)) {
        VX_TRACE(1, kControlThread, kInfo,
                 "Protocols and Ports are same so control connection will remain same.");
        return 0;
    }
    if (cleanup) cleanup();
    VX_TRACE(1, kControlThread, kInfo,
             "Protocols are same but port of protocol are differenet, Hence closing current control "
             "connection");
    return 1;
}

int getProtocolPort(int protocol) {
    const ProtocolRow* row = rowOf(protocol);
    if (!row) return 0;
    const std::int32_t port = (vxCurrent()->VXBCISetting.*row->port).load(std::memory_order_relaxed);
    return port > 0 ? port : 0;
}

void setActiveProtocolIndex(int protocol) {
    std::atomic<std::int32_t>& active = vxCurrent()->control.ActiveAgentProtocolIndex;
    VX_TRACE(1, kControlThread, kInfo, "ActiveAgentProtocolIndex = %d, replacing it with ProtocolIndex = %d",
             active.load(), protocol);
    active.store(protocol);
}

}  // namespace vx
