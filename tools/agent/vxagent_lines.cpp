#include "tools/agent/vxagent_lines.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace vx::agent {
namespace {

constexpr std::size_t kFieldMax = 1023;

struct KindRow {
    std::string_view prefix;
    LineKind kind;
};
constexpr auto kKindRows = std::to_array<KindRow>({
    {"vx_ctrl_msg_rep:result=Ok", LineKind::kReply},
    {"vx_control_req:action=start_instrumentation", LineKind::kStart},
    {"vx_control_req:action=stop_instrumentation", LineKind::kStop},
    {"vx_meta_data_req:action=get_thread_dump;", LineKind::kThreadDump},
});

class LineBuilder {
public:
    explicit LineBuilder(std::string_view prefix) : line_(prefix) {}

    LineBuilder& field(std::string_view key, std::string_view value) {
        if (line_.back() != ':') line_.append(";");
        line_.append(key).append("=").append(value);
        return *this;
    }
    LineBuilder& field(std::string_view key, std::int64_t value) {
        return field(key, std::string_view(std::to_string(value)));
    }
    std::string end(std::string_view tail) {
        line_.append(tail);
        return std::move(line_);
    }

private:
    std::string line_;
};

std::string hostName() {
    char name[256] = "";
    if (gethostname(name, sizeof(name) - 1) != 0 || !name[0]) return "localhost";
    return name;
}

}  // namespace

bool isFieldText(std::string_view value) {
    const auto breaks = [](char byte) { return byte == ';' || static_cast<unsigned char>(byte) < ' '; };
    return !value.empty() && value.size() <= kFieldMax && std::none_of(value.begin(), value.end(), breaks);
}

std::string controlLine(const Identity& identity, std::int64_t nowMs) {
    return LineBuilder("vx_ctrl_msg_req:")
        .field("appName", identity.application)
        .field("vxAppServerHost", identity.server)
        .field("tierName", identity.tier)
        .field("bciVersion", VX_VERSION)
        .field("bciStartTime", identity.startedMs)
        .field("vxHome", "/")
        .field("pid", identity.pid)
        .field("BCITimeStamp", nowMs)
        .field("agentType", identity.agentType)
        .field("serverIp", "127.0.0.1")
        .field("hostName", hostName())
        .field("isAgentLess", "N")
        .field("jvmType", identity.agentType)
        .field("javaVersion", "1.0")
        .field("javaHome", "/apps/java")
        .field("machineType", "LinuxEx")
        .field("requestType", 0)
        .field("lastConnectionTimeStamp", 0)
        .field("connDuration", 0)
        .field("connDestination", identity.host + ":" + std::to_string(identity.port))
        .field("agentName", identity.agent)
        .field("supportedProtocols", "TCP")
        .field("authtoken", "")
        .field("tags", "")
        .field("attributes", "")
        .field("protoVer", 1)
        .end("; \n");
}

std::string dataLine(const Identity& identity, const StartIds& ids) {
    return LineBuilder("vx_data_msg_req:")
        .field("appName", ids.application.empty() ? identity.application : ids.application)
        .field("appID", ids.appID)
        .field("vxAppServerID", ids.vxAppServerID)
        .field("vxAppServerHost", identity.server)
        .field("tierName", identity.tier)
        .field("tierID", ids.tierID)
        .field("VXCollectorIP", identity.host)
        .field("VXCollectorPort", identity.port)
        .field("testIdx", ids.testIdx)
        .field("pid", identity.pid)
        .field("agentName", identity.agent)
        .end("\n");
}

LineKind kindOf(std::string_view line) {
    for (const KindRow& row : kKindRows)
        if (line.starts_with(row.prefix)) return row.kind;
    return LineKind::kOther;
}

bool lastField(std::string_view line, std::string_view key, std::string_view& found) {
    bool any = false;
    std::size_t at = line.find(':');
    at = at == std::string_view::npos ? 0 : at + 1;
    while (at < line.size()) {
        const std::size_t end = std::min(line.find(';', at), line.size());
        const std::string_view field = line.substr(at, end - at);
        if (field.size() > key.size() && field[key.size()] == '=' && field.starts_with(key)) {
            found = field.substr(key.size() + 1);
            any = true;
        }
        at = end + 1;
    }
    return any;
}

std::int32_t lastNumber(std::string_view line, std::string_view key, std::int32_t otherwise) {
    std::string_view text;
    std::int32_t value = 0;
    if (!lastField(line, key, text)) return otherwise;
    return std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc() ? value
                                                                                            : otherwise;
}

StartIds startIds(std::string_view line) {
    StartIds ids;
    ids.appID = lastNumber(line, "appID", 0);
    ids.vxAppServerID = lastNumber(line, "vxAppServerID", 0);
    ids.tierID = lastNumber(line, "tierID", 0);
    ids.testIdx = lastNumber(line, "testIdx", 0);
    std::string_view application;
    if (lastField(line, "appName", application) && isFieldText(application)) ids.application = application;
    return ids;
}

}  // namespace vx::agent
