#include "commonlibc/proxyServer/vx_proxy_registration_line.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr int kMaxFields = 128;

enum class FieldKind : std::uint8_t { kText, kTextIfGiven, kInt64, kInt32, kChar };

struct FieldRow {
    const char* key;
    std::size_t offset, width;
    FieldKind kind;
};

#define VX_FIELD(key, kind) \
    { #key, offsetof(kwLocalStruct, key), sizeof(kwLocalStruct::key), FieldKind::kind }
constexpr FieldRow kFieldRows[] = {
    VX_FIELD(appName, kText),
    VX_FIELD(vxAppServerHost, kText),
    VX_FIELD(tierName, kText),
    VX_FIELD(bciVersion, kText),
    VX_FIELD(vxHome, kText),
    VX_FIELD(hostName, kText),
    VX_FIELD(javaHome, kText),
    VX_FIELD(connDestination, kText),
    VX_FIELD(agentName, kText),
    VX_FIELD(agentType, kText),
    VX_FIELD(VXCollectorIP, kText),
    VX_FIELD(serverIp, kText),
    VX_FIELD(jvmType, kText),
    VX_FIELD(javaVersion, kText),
    VX_FIELD(machineType, kText),
    VX_FIELD(attributes, kTextIfGiven),
    VX_FIELD(tags, kTextIfGiven),
    VX_FIELD(bciStartTime, kInt64),
    VX_FIELD(pid, kInt64),
    VX_FIELD(BCITimeStamp, kInt64),
    VX_FIELD(lastConnectionTimeStamp, kInt64),
    VX_FIELD(connDuration, kInt64),
    VX_FIELD(requestType, kInt32),
    VX_FIELD(appID, kInt32),
    VX_FIELD(vxAppServerID, kInt32),
    VX_FIELD(tierID, kInt32),
    VX_FIELD(VXCollectorPort, kInt32),
    VX_FIELD(testIdx, kInt32),
    VX_FIELD(isAgentLess, kChar),
};
#undef VX_FIELD

template <class T>
void storeNumber(char* member, const char* value) {
    const long long number = std::strtoll(value, nullptr, 10);
    const T bounded = static_cast<T>(
        std::clamp<long long>(number, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
    std::memcpy(member, &bounded, sizeof(bounded));
}

void store(kwLocalStruct& record, const FieldRow& row, const char* value) {
    char* member = reinterpret_cast<char*>(&record) + row.offset;
    switch (row.kind) {
        case FieldKind::kTextIfGiven:
            if (!*value) return;
            [[fallthrough]];
        case FieldKind::kText:
            vxlb_copy_text(member, row.width, value);
            return;
        case FieldKind::kInt64:
            storeNumber<std::int64_t>(member, value);
            return;
        case FieldKind::kInt32:
            storeNumber<std::int32_t>(member, value);
            return;
        case FieldKind::kChar:
            *member = *value;
            return;
    }
}

const FieldRow* rowOf(const char* key) {
    for (const FieldRow& row : kFieldRows)
        if (std::strcmp(row.key, key) == 0) return &row;
    return nullptr;
}

}  // namespace

void vxParseRegistrationLine(char* fields, kwLocalStruct& record) {
    record = kwLocalStruct{};
    char* tokens[kMaxFields];
    const int count = vxlb_get_tokens_with_multi_delimiter(fields, tokens, ";", kMaxFields);
    for (int i = 0; i < count; ++i) {
        char* equals = std::strchr(tokens[i], '=');
        if (!equals) continue;
        *equals = '\0';
        if (const FieldRow* row = rowOf(tokens[i])) store(record, *row, equals + 1);
    }
}

}  // namespace vx
