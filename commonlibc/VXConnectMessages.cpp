#include "commonlibc/VXConnectMessages.h"

#include <cstring>

#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXCServerConfig.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr const char* kMachineType = "Windows";
constexpr const char* kSaasAgentVersion = "4.3.0";
constexpr const char* kEmptyJson = "{}";
constexpr int kMaxSaasFields = 1024;

const char* jsonOf(const VXSharedText& text) {
    const char* json = text.getOr("");
    return *json ? json : kEmptyJson;
}

const char* agentNameOf(const vxApplication& app) {
    return app.identity.agentName ? app.identity.agentName : "";
}

// The collector takes the first process as the agent's.
std::int64_t agentPid(const vxApplication& app) {
    if (app.identity.numProcess.load(std::memory_order_acquire) < 1) return 0;
    const processInfo_t* first = processAt(app, 0);
    return first ? first->pid.load(std::memory_order_relaxed) : 0;
}

// A connect line over its buffer: one byte stays for the terminator.
class ConnectLine {
public:
    ConnectLine(char (&buffer)[kConnectLineSize], std::int32_t& length)
        : buffer_(buffer), length_(length), out_(buffer, kConnectLineSize - 1) {}

    ConnectLine& field(const char* name, const char* value) {
        out_.text(name).recordText(value);
        return *this;
    }
    ConnectLine& field(const char* name, std::int64_t value) {
        out_.text(name).number(value);
        return *this;
    }
    void end(const char* tail) {
        out_.text(tail).endLine();
        length_ = static_cast<std::int32_t>(out_.length());
        buffer_[length_] = '\0';
        if (out_.cut()) VX_TRACE(1, kControlThread, kWarning, "Connect message is cut at %d bytes", length_);
    }

private:
    char* buffer_;
    std::int32_t& length_;
    VXWriter out_;
};

// What control and SaaS line share: the way this connection came about.
void historyFields(ConnectLine& line, const VXControlState_t& control) {
    line.field(";requestType=", control.requestType)
        .field(";lastConnectionTimeStamp=", control.lastConnectionTimeStamp)
        .field(";connDuration=", control.connDuration)
        .field(";connDestination=", control.connDestination);
}

void makeControlMessage(vxApplication& app) {
    VXBCISetting_t& setting = app.VXBCISetting;
    const char* agentType = setting.agentType.getOr("");
    char serverIp[kHostSize];
    getServerIP(serverIp, sizeof(serverIp));

    ConnectLine line(setting.controlMessage, setting.controlMessageLen);
    line.field("vx_ctrl_msg_req:appName=", getAppName())
        .field(";vxAppServerHost=", getAppServerName())
        .field(";tierName=", getTierName())
        .field(";bciVersion=", getVxBuild())
        .field(";bciStartTime=", getBCIStartUpTime())
        .field(";vxHome=", getVXHome())
        .field(";pid=", agentPid(app))
        .field(";proxyPid=", vxlb_get_pid())
        .field(";BCITimeStamp=", vxlb_now_ms())
        .field(";agentType=", agentType)
        .field(";serverIp=", serverIp)
        .field(";hostName=", getAppServerName())
        .field(";isAgentLess=N;jvmType=", agentType)
        .field(";javaVersion=1.0;javaHome=/apps/java;machineType=", kMachineType);
    historyFields(line, app.control);
    line.field(";agentName=", agentNameOf(app))
        .field(";supportedProtocols=", app.VXSys.supportedProtocolsString)
        .field(";authtoken=", setting.authtoken.getOr(""))
        .field(";tags=", jsonOf(setting.tags))
        .field(";attributes=", jsonOf(setting.attributes))
        .field(";protoVer=", app.control.lws_active.load() == 1 ? 1 : 0)
        .end("; ");
}

void makeSaasMessage(vxApplication& app) {
    VXBCISetting_t& setting = app.VXBCISetting;
    const char* agentType = setting.agentType.getOr("");

    ConnectLine line(setting.controlMessage, setting.controlMessageLen);
    line.field("zor_saas_auth_agent_msg_req:appName=", getAppName())
        .field(";agentVersion=", kSaasAgentVersion)
        .field(";agentStartTime=", vxlb_now_ms())
        .field(";vxHome=", getVXHome())
        .field(";pid=", agentPid(app))
        .field(";proxyPid=", vxlb_get_pid())
        .field(";isAgentLess=N;jvmType=", agentType)
        .field(";javaVersion=1.0;javaHome=/apps/java;machineType=", kMachineType);
    historyFields(line, app.control);
    line.field(";projectKey=", setting.projectKey.getOr(""))
        .field(";protoVer=1;agentType=", agentType)
        .field(";supportedProtocols=", app.VXSys.supportedProtocolsString)
        .field(";agentIp=", setting.SaasHost.getOr(""))
        .field(";tags=", jsonOf(setting.tags))
        .field(";attributes=", jsonOf(setting.attributes))
        .field(";agentHostName=", agentNameOf(app))
        .end("; ");
}

// Data and auto-sensor line differ in the prefix and in what stands in front of testIdx.
void makeStreamMessage(ConnectLine line, const char* prefix, const char* beforeTestIndex) {
    const vxApplication& app = *vxCurrent();
    const VXBCISetting_t& setting = app.VXBCISetting;
    line.field(prefix, getAppName())
        .field(";appID=", getAppID())
        .field(";vxAppServerID=", getAppServerID())
        .field(";vxAppServerHost=", getAppServerName())
        .field(";tierName=", getTierName())
        .field(";tierID=", getTierID())
        .field(";VXCollectorIP=", setting.vxcHost.getOr(""))
        .field(";VXCollectorPort=", getProtocolPort(app.control.ActiveAgentProtocolIndex.load()))
        .field(beforeTestIndex, setting.testRunIndex.load(std::memory_order_relaxed))
        .field(";pid=", vxlb_get_pid())
        .field(";agentName=", agentNameOf(app))
        .end("");
}

void takeSaasHost(const char* value) {
    if (setVXCHost(value) == 0) vxSetCollectorSaas(0, 0, value);
}

void takeSaasPort(const char* value) {
    const int port = vxNumberOf(value);
    setVXCPort(port);
    if (checkVXCPort(port)) vxSetCollectorPort(0, port);
}

void takeProtoVer(const char* value) {
    setProtoVer(vxNumberOf(value));
}

struct SaasRow {
    const char* key;
    void (*take)(const char* value);
};
constexpr SaasRow kSaasRows[] = {
    {"host", takeSaasHost},
    {"port", takeSaasPort},
    {"authtoken", setAuthtoken},
    {"protoVer", takeProtoVer},
};

void takeSaasField(const char* field) {
    for (const SaasRow& row : kSaasRows) {
        const char* value = search_keyword(field, row.key);
        if (!value) continue;
        row.take(value);
        return;
    }
}

}  // namespace

void setControlConnectionReqMessage() {
    vxApplication& app = *vxCurrent();
    vxClearCollectorProtocols();
    if (!app.VXBCISetting.authtoken.get()) setAuthtoken("NA");
    if (app.VXBCISetting.saasMode && vxCollectorInUse().isSaas == 1) {  // a backup is none
        makeSaasMessage(app);
    } else {
        makeControlMessage(app);
    }
}

void setControlDataReqMessage() {
    VXBCISetting_t& setting = vxCurrent()->VXBCISetting;
    makeStreamMessage({setting.dataMessage, setting.dataMessageLen}, "vx_data_msg_req:appName=", ";testIdx=");
}

void setControlAutoSensorReqMessage() {
    // The collector's parser expects the comma.
    VXBCISetting_t& setting = vxCurrent()->VXBCISetting;
    makeStreamMessage({setting.autoSensorMessage, setting.autoSensorMessageLen},
                      "auto_sensor_thread_hotspot_data_req:appName=", ",testIdx=");
}

int parseSAASClientMsg(char* line) {
    if (!line || !*line) {
        VX_TRACE(1, kControlThread, kError, " Invalid argument passed ");
        return 1;
    }
    line[std::strcspn(line, "\r\n")] = '\0';
    char* fields[kMaxSaasFields];
    const int count = vxlb_get_tokens_with_multi_delimiter(line, fields, ";", kMaxSaasFields);
    if (count < 1) {
        VX_TRACE(1, kControlThread, kError, "Error is tokenising client message, num_token = %d", count);
        return 1;
    }
    for (int i = 0; i < count; ++i) takeSaasField(fields[i]);

    vxApplication& app = *vxCurrent();
    vxlb_copy_text(app.control.destinationIP, sizeof(app.control.destinationIP),
                   app.VXBCISetting.vxcHost.getOr(""));
    app.control.destinationPort = app.VXBCISetting.vxcPort.load(std::memory_order_relaxed);
    return 0;
}

}  // namespace vx
