#include "commonlibc/VXCServerConfig.h"

#include <cstdlib>
#include <cstring>

#include "commonlibc/VXProtocol.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr int kMaster = 0;
constexpr int kBackup = 1;

constexpr std::size_t kPolicySize = 513;  // 512 bytes of the reply
constexpr int kPolicyFields = 5;
constexpr int kPolicyValues = 10;
constexpr int kPollSeconds = 10;  // one round of the control thread's read loop
constexpr unsigned kSawState = 1, kSawRetryPolicy = 2, kSawProtoVersion = 4;

VXCollectors_t& collectors() {
    return vxCurrent()->collectors;
}

// Null outside the array. The collectors' mutex is held.
VXCollectorRecord* recordAt(VXCollectors_t& all, int index) {
    if (!all.vxc_server_arr || index < 0 || index >= all.vxc_server_list_size) return nullptr;
    return &all.vxc_server_arr[index];
}

bool usable(const VXCollectorRecord* record) {
    return record && *record->host && record->port > 0;
}

void setHostAndPort(VXCollectorRecord& record, const char* host, int port) {
    if (host) vxlb_copy_text(record.host, sizeof(record.host), host);
    if (port != kLeavePort) record.port = record.givenPort = port;
}

void setHostAndPort(int index, const char* host, int port) {
    VXCollectors_t& all = collectors();
    const VXGuard lock(all.mutex);
    if (VXCollectorRecord* record = recordAt(all, index)) setHostAndPort(*record, host, port);
}

void clearState(VXCollectors_t& all, int index) {
    if (VXCollectorRecord* record = recordAt(all, index)) record->state = 0;
}

VXCollectorRecord use(VXCollectors_t& all, int index) {
    all.activeVXC = index;
    VXCollectorRecord* record = recordAt(all, index);
    if (!record) return {};
    record->state = 1;
    return *record;
}

// What a switch after a lost collector came to, for the trace behind the lock.
enum class SwitchResult { kNone, kToBackup, kNoBackup };

// Index of the record that the next attempt takes when the present one is to be left.
int indexAfterSwitch(VXCollectors_t& all, SwitchResult& result) {
    clearState(all, all.activeVXC);
    if (all.activeOnMaster == 0) {
        all.activeOnMaster = 1;
        return kMaster;
    }
    if (!usable(recordAt(all, kBackup))) {
        result = SwitchResult::kNoBackup;
        return kMaster;
    }
    result = SwitchResult::kToBackup;
    all.activeOnMaster = 0;
    return kBackup;
}

int endpointIndex(VXCollectors_t& all, bool envConfigured, bool limitHit, SwitchResult& result) {
    if (all.clusterMode.load() == 0 || envConfigured) {
        if (all.dr_switch_pending.exchange(0)) return indexAfterSwitch(all, result);
        all.activeOnMaster = all.activeVXCIndex == kMaster ? 1 : 0;  // a backup's state 0 leads to the master
        return all.activeVXCIndex;
    }
    if (!limitHit) return kBackup;  // where a reroute put its target
    all.activeOnMaster = 1;
    return kMaster;
}

// The first of the agent's protocols; without a list the one in use.
std::int32_t configuredProtocol(const vxApplication& app) {
    const std::int32_t first = app.collectors.supportedProtocolArray[0];
    if (first != 0) return first;
    return app.control.lws_active ? app.control.ActiveAgentProtocolIndex.load() : kProtocolTCP;
}

// Makes the record's protocol the one in use. A collector that named none of the agent's (0) keeps that, as
// long as it is not left: it would send the instance away each time.
void takeTransport(VXControlState_t& control, std::int32_t protocol, bool moved) {
    const std::uint8_t lws = protocol == kProtocolTCP ? 0 : 1;
    if (!moved && control.ActiveAgentProtocolIndex == 0 && control.lws_active == lws) return;
    control.ActiveAgentProtocolIndex = protocol;
    control.lws_active = lws;
}

// Marks the record and makes its protocol the one in use. The collectors' mutex is held.
VXCollectorRecord take(vxApplication& app, int index) {
    VXCollectors_t& all = app.collectors;
    const bool moved = index != all.activeVXC;
    VXCollectorRecord* record = recordAt(all, index);
    if (record && record->protocol == 0) record->protocol = configuredProtocol(app);
    if (record) takeTransport(app.control, record->protocol, moved);
    return use(all, index);
}

void traceSwitch(SwitchResult result) {
    if (result == SwitchResult::kToBackup)
        VX_TRACE(1, kControlThread, kInfo, "[VX DR FEATURE]Active. Switched to Backup VXC");
    if (result != SwitchResult::kNoBackup) return;
    VX_TRACE(1, kControlThread, kInfo,
             "[VX DR FEATURE]Active. Backup VXC Host/Port not provided in configurtion file.");
    VX_TRACE(1, kControlThread, kInfo, "[VX DR FEATURE]Active. Switching again on Master VXC");
}

std::int64_t positiveOr(const char* text, std::int64_t otherwise) {
    const long value = std::strtol(text, nullptr, 10);
    return value >= 1 && value <= INT32_MAX ? value : otherwise;
}

// "count%seconds between attempts%missed heartbeats%seconds between heartbeats".
void takeRetryPolicy(VXControlState_t& control, char* text) {
    char* values[kPolicyValues];
    const int count = vxlb_get_tokens_with_multi_delimiter(text, values, "%", kPolicyValues);
    if (count < 1) {
        VX_TRACE(1, kControlThread, kError, "[VX DR Feature]; Error in parsing VX DR retry policy");
        return;
    }
    const std::int64_t attempts = positiveOr(values[0], control.retryCount);
    control.retryCount = static_cast<std::uint8_t>(attempts > UINT8_MAX ? UINT8_MAX : attempts);
    if (count > 1) {
        const std::int64_t seconds = positiveOr(values[1], 0);
        if (seconds > 0) control.retryInterval.store(seconds * 1000000, std::memory_order_relaxed);
    }
    if (count > 2)
        control.heartBeatMissCount =
            static_cast<std::int32_t>(positiveOr(values[2], control.heartBeatMissCount));
    if (count > 3) {
        const std::int64_t rounds = positiveOr(values[3], 0) / kPollSeconds;
        if (rounds > 0) control.heartBeatRounds = static_cast<std::int32_t>(rounds);
    }
    VX_TRACE(1, kControlThread, kInfo,
             "[VX DR Feature]; Retry policy from VXC: [Retry Count | Retry Interval | HeartBeat Miss Count] "
             "= [ %d | %lld | %d]",
             control.retryCount, static_cast<long long>(control.retryInterval.load()),
             control.heartBeatMissCount);
}

bool beginsWith(const char* key, const char* word) {
    return std::strncmp(key, word, std::strlen(word)) == 0;
}

// False when the collector's state is 0: it is not to be used now.
bool takeState(const char* value) {
    const long number = std::strtol(value, nullptr, 10);
    const auto state = static_cast<std::uint8_t>(number < 0 || number > UINT8_MAX ? UINT8_MAX : number);
    VXCollectors_t& all = collectors();
    {
        const VXGuard lock(all.mutex);
        if (VXCollectorRecord* record = recordAt(all, all.activeVXC)) record->state = state;
    }
    if (state != 0) return true;
    VX_TRACE(1, kControlThread, kInfo, " VXC state is zero, setting vx_dr_state is set false");
    all.dr_switch_pending.store(1);
    return false;
}

}  // namespace

void vxMakeCollectorArray(vxApplication& app) {
    VXCollectors_t& all = app.collectors;
    const bool isNew = !all.vxc_server_arr;
    {
        const VXGuard lock(all.mutex);
        if (all.vxc_server_arr && all.vxc_server_list_size > 0) return;
        auto* records = static_cast<VXCollectorRecord*>(
            VXLB_MALLOC_AND_MEMSET(kCollectorStep * sizeof(VXCollectorRecord), "vxc_server_arr", -1));
        if (!records) return;
        VXLB_FREE(all.vxc_server_arr, "vxc_server_arr", -1);
        all.vxc_server_arr = records;
        all.vxc_server_list_size = kCollectorStep;
        if (isNew) all.activeVXC = -1;
    }
    if (isNew) {
        VX_TRACE(1, kControlThread, kInfo, "VXC info server list size = %d", kCollectorStep);
    } else {
        VX_TRACE(1, kControlThread, kInfo, "Going to realloc vxc_server_arr with size = %d", kCollectorStep);
    }
}

VXCollectorRecord get_active_vxc() {
    VXCollectors_t& all = collectors();
    const VXGuard lock(all.mutex);
    const VXCollectorRecord* record = recordAt(all, all.activeVXCIndex);
    return record ? *record : VXCollectorRecord{};
}

VXCollectorRecord vxCollectorInUse() {
    VXCollectors_t& all = collectors();
    const VXGuard lock(all.mutex);
    const VXCollectorRecord* record = recordAt(all, all.activeVXC < 0 ? all.activeVXCIndex : all.activeVXC);
    return record ? *record : VXCollectorRecord{};
}

VXCollectorRecord vxCollectorAt(int index) {
    VXCollectors_t& all = collectors();
    const VXGuard lock(all.mutex);
    const VXCollectorRecord* record = recordAt(all, index);
    return record ? *record : VXCollectorRecord{};
}

void setPrimaryVXC(const char* host, int port) {
    setHostAndPort(kMaster, host, port);
}

void setBackupVXC(const char* host, int port) {
    setHostAndPort(kBackup, host, port);
}

void vxSetCollectorPort(int index, int port) {
    setHostAndPort(index, nullptr, port);
}

void vxSetCollectorProtocol(int index, int protocol, int port) {
    VXCollectors_t& all = collectors();
    const VXGuard lock(all.mutex);
    VXCollectorRecord* record = recordAt(all, index);
    if (!record) return;
    record->protocol = protocol;
    if (port > 0) record->port = port;
}

void vxForgetNegotiated() {
    const VXBCISetting_t& setting = vxCurrent()->VXBCISetting;
    VXCollectors_t& all = collectors();
    const VXGuard lock(all.mutex);
    VXCollectorRecord* record = recordAt(all, all.activeVXC);
    if (!record) return;
    record->protocol = 0;
    record->port = record->givenPort;
    if (all.activeVXC != kMaster || !setting.saasMode || !setting.SaasHost.get()) return;
    setHostAndPort(*record, setting.SaasHost.get(), setting.saasPort);
    record->isSaas = 1;
}

void vxSetCollectorSaas(int index, int isSaas, const char* host) {
    VXCollectors_t& all = collectors();
    const VXGuard lock(all.mutex);
    VXCollectorRecord* record = recordAt(all, index);
    if (!record) return;
    record->isSaas = isSaas;
    setHostAndPort(*record, host, kLeavePort);
}

void vxSetCollectorState(int index, int state) {
    VXCollectors_t& all = collectors();
    const VXGuard lock(all.mutex);
    if (state) {
        use(all, index);
    } else {
        clearState(all, index);
    }
}

void vxFinishCollectorRecords() {
    vxApplication& app = *vxCurrent();
    const VXBCISetting_t& setting = app.VXBCISetting;
    const bool isSaas = setting.saasMode != 0 && setting.SaasHost.get();
    const char* host = isSaas ? setting.SaasHost.get() : setting.vxcHost.getOr("");
    int port = isSaas ? setting.saasPort : 0;
    if (port < 1 && setting.protocolGiven)
        port = getProtocolPort(app.control.ActiveAgentProtocolIndex.load());
    if (port < 1) port = setting.vxcPort.load(std::memory_order_relaxed);

    VXCollectors_t& all = app.collectors;
    const VXGuard lock(all.mutex);
    if (VXCollectorRecord* master = recordAt(all, kMaster)) {
        setHostAndPort(*master, host, port);
        master->isSaas = isSaas ? 1 : 0;
    }
    all.num_vxc_config = 0;
    for (int i = 0; i < all.vxc_server_list_size; ++i) {
        all.vxc_server_arr[i].protocol = 0;
        if (*all.vxc_server_arr[i].host) ++all.num_vxc_config;
    }
    all.dr_enabled.store(usable(recordAt(all, kBackup)) ? 1 : 0);
}

VXCollectorRecord vxChooseEndpoint(bool limitHit) {
    vxApplication& app = *vxCurrent();
    VXCollectors_t& all = app.collectors;
    SwitchResult result = SwitchResult::kNone;
    VXCollectorRecord chosen;
    {
        const VXGuard lock(all.mutex);
        chosen = take(app, endpointIndex(all, app.VXBCISetting.envConfigured != 0, limitHit, result));
    }
    traceSwitch(result);
    return chosen;
}

VXCollectorRecord vxKeepEndpoint() {
    vxApplication& app = *vxCurrent();
    const VXGuard lock(app.collectors.mutex);
    return take(app, app.collectors.activeVXC);
}

void lookup_for_next_vxc() {
    VXCollectors_t& all = collectors();
    int index = 0;
    int configured = 0;
    {
        const VXGuard lock(all.mutex);
        const int next = all.activeVXCIndex + 1;
        configured = all.num_vxc_config;
        index = next < all.vxc_server_list_size && next < configured ? next : 0;
        all.activeVXCIndex = index;
    }
    VX_TRACE(1, kControlThread, kInfo,
             "Index of active VXC server array = %d, VXBCISetting.num_vxc_config = %d", index, configured);
}

void connection_retry_failed() {
    VXCollectors_t& all = collectors();
    if (all.dr_enabled.load()) {
        VX_TRACE(1, kControlThread, kInfo,
                 "[VX DR Feature]; Retry for connection attempt failed DR is enabled, looking for backup");
        {
            const VXGuard lock(all.mutex);
            clearState(all, all.activeVXC);
        }
        lookup_for_next_vxc();
        const VXCollectorRecord next = get_active_vxc();
        VX_TRACE(1, kControlThread, kInfo, "[VX DR Feature]; Got next VXC info: [host | port] = [%s | %d]",
                 next.host, next.port);
    } else {
        const VXGuard lock(all.mutex);
        all.activeVXCIndex = 0;
    }
    const VXGuard lock(all.mutex);
    if (VXCollectorRecord* record = recordAt(all, all.activeVXCIndex)) record->state = 1;
}

void clear_vxc_server_setting() {
    VXCollectors_t& all = collectors();
    const VXGuard lock(all.mutex);
    for (int i = 0; i < all.vxc_server_list_size; ++i) all.vxc_server_arr[i] = {};
    all.dr_enabled.store(0);
    all.num_vxc_config = 0;
}

int parse_policy_from_clientMsg(const char* buffer) {
    if (!buffer || !*buffer) {
        VX_TRACE(1, kControlThread, kError, " Invalid argument passed ");
        return 1;
    }
    char text[kPolicySize];
    vxlb_copy_text(text, sizeof(text), buffer);
    char* fields[kPolicyFields];
    const int count = vxlb_get_tokens_with_multi_delimiter(text, fields, ";", kPolicyFields);
    if (count < 1) {
        VX_TRACE(1, kControlThread, kError, "Error is tokenising client message, num_token = %d", count);
        return 1;
    }

    unsigned seen = 0;
    for (int i = 0; i < count; ++i) {
        char key[64];
        char* value = split_key_value(fields[i], key, sizeof(key));
        if (!value) {
            VX_TRACE(1, kControlThread, kWarning, " unknown keyword = %s ", fields[i]);
        } else if (beginsWith(key, "state")) {
            if (!takeState(value)) return 1;
            seen |= kSawState;
        } else if (beginsWith(key, "retryPolicy")) {
            takeRetryPolicy(vxCurrent()->control, value);
            seen |= kSawRetryPolicy;
        } else if (beginsWith(key, "ProtoVersion")) {
            seen |= kSawProtoVersion;
        }
    }
    const bool complete = seen == (kSawState | kSawRetryPolicy | kSawProtoVersion);
    if (!complete) collectors().dr_enabled.store(0);
    VX_TRACE(1, kControlThread, kInfo, "[VX DR Feature]; DR feature is %s", complete ? "enable" : "disable");
    return 0;
}

}  // namespace vx
