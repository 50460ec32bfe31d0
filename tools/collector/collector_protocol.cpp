#include "tools/collector/collector_protocol.h"

#include <array>
#include <fstream>

namespace vx::collector {

namespace {

struct KindRow {
    std::string_view prefix;
    StreamKind kind;
};
constexpr auto kKinds = std::to_array<KindRow>({
    {"vx_ctrl_msg_req:", StreamKind::kControl},
    {"vx_data_msg_req:", StreamKind::kData},
    {"auto_sensor_thread_hotspot_data_req:", StreamKind::kAutoSensor},
    {"agent_post_data_req:", StreamKind::kDiscovery},
});

// Start of 2014 UTC in seconds: the epoch base of the default start line.
constexpr std::int64_t kEpochDiffSeconds = 1388534400;

int idOf(Ids& ids, const std::string& name) {
    const auto [at, added] = ids.known.try_emplace(name, ids.last + 1);
    ids.last += added;
    return at->second;
}

// Whether a name stands there, or one that begins with it and a slash.
bool isUsed(const Ids& ids, const std::string& name) {
    const auto at = ids.known.lower_bound(name + "/");
    return ids.known.contains(name) || (at != ids.known.end() && at->first.starts_with(name + "/"));
}

}  // namespace

const char* kindText(StreamKind kind) {
    switch (kind) {
        case StreamKind::kControl:
            return "control";
        case StreamKind::kData:
            return "data";
        case StreamKind::kAutoSensor:
            return "auto-sensor";
        case StreamKind::kDiscovery:
            return "discovery";
        default:
            return "unknown";
    }
}

StreamKind kindOf(std::string_view firstLine) {
    for (const KindRow& row : kKinds)
        if (firstLine.starts_with(row.prefix)) return row.kind;
    return StreamKind::kUnknown;
}

std::string_view fieldOf(std::string_view line, std::string_view key) {
    for (const KindRow& row : kKinds)
        if (line.starts_with(row.prefix)) line.remove_prefix(row.prefix.size());
    while (!line.empty()) {
        const std::size_t end = line.find(';');
        const std::string_view field = line.substr(0, end);
        if (field.size() > key.size() && field.starts_with(key) && field[key.size()] == '=')
            return field.substr(key.size() + 1);
        if (end == std::string_view::npos) break;
        line.remove_prefix(end + 1);
    }
    return {};
}

Identity identityOf(std::string_view line) {
    if (kindOf(line) == StreamKind::kDiscovery)
        return {std::string(fieldOf(line, "Tier")), std::string(fieldOf(line, "Server")),
                std::string(fieldOf(line, "Instance")), ""};
    return {std::string(fieldOf(line, "tierName")), std::string(fieldOf(line, "vxAppServerHost")),
            std::string(fieldOf(line, "appName")), std::string(fieldOf(line, "agentName"))};
}

GivenIds idsOf(Identities& identities, const Identity& identity) {
    return {idOf(identities.tiers, identity.tier),
            idOf(identities.servers, identity.tier + "/" + identity.server),
            idOf(identities.apps, identity.tier + "/" + identity.server + "/" + identity.app),
            idOf(identities.instances, identity.text())};
}

// What an instance stands for in each table begins its name, and ends before a slash of it.
void forgetIds(Identities& identities, const std::string& instance) {
    identities.instances.known.erase(instance);
    for (std::string name = instance; !isUsed(identities.instances, name);) {
        for (Ids* ids : {&identities.apps, &identities.servers, &identities.tiers}) ids->known.erase(name);
        const std::size_t slash = name.rfind('/');
        if (slash == std::string::npos) return;
        name.erase(slash);
    }
}

std::string connectReply(std::string_view connectLine, const Options& options, int instance) {
    std::string reply =
        "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=" + options.retryPolicy +
        ";ProtoVersion=1";
    const std::string_view protocols = fieldOf(connectLine, "supportedProtocols");
    if (!protocols.empty())
        reply.append(";supportedProtocols=").append(options.offer.empty() ? protocols : options.offer);
    return reply + ";procIndex=" + std::to_string(instance) + "\n";
}

std::string startLine(const std::string& keywords, const std::string& fields, const GivenIds& ids,
                      int testIdx) {
    std::string line = "vx_control_req:action=start_instrumentation;";
    line += "tierID=" + std::to_string(ids.tierID) + ";vxAppServerID=" + std::to_string(ids.vxAppServerID) +
            ";appID=" + std::to_string(ids.appID) + ";testIdx=" + std::to_string(testIdx) + ";";
    if (keywords.empty()) {
        line += "zorEpochDiff=" + std::to_string(kEpochDiffSeconds) + ";bciInstrSessionPct=100;";
    } else {
        line += keywords + ";";
    }
    return line + fields + "\n";
}

std::string stopLine() {
    return "vx_control_req:action=stop_instrumentation;status=stopping;\n";
}

std::string modifyLine(std::string_view keywords) {
    while (keywords.ends_with(';')) keywords.remove_suffix(1);
    return "vx_control_req:action=modify;" + std::string(keywords) + ";\n";
}

std::string heartbeatLine(int number) {
    return "vx_control_req:action=reconnect;heartBeat " + std::to_string(number) +
           ";dataConnState=1;AutosensorConnState=1;\n";
}

std::string threadDumpLine() {
    return "vx_meta_data_req:action=get_thread_dump;\n";
}

std::string discoverLine(int testIdx) {
    return "vxc_req:action=discover_loaded_classes;Id=" + std::to_string(testIdx) + ";\n";
}

std::string metadataLine() {
    return "vx_meta_data_req:action=send_meta_data;\n";
}

std::string ruckusLine(std::string_view id, int seconds, std::string_view fields) {
    while (fields.ends_with(';')) fields.remove_suffix(1);
    std::string line = "VexalineMessage 2.0;RKMID=" + std::string(id);
    line += seconds > 0 ? ";duration=" + std::to_string(seconds) : ";action=stop";
    if (!fields.empty()) line.append(";").append(fields);
    return line + ";\n";
}

std::string rerouteLine(std::string_view host, int port) {
    return "vx_control_req:action=reroute_ctrl_con;vxcHost=" + std::string(host) +
           ";vxcPort=" + std::to_string(port) + ";tier=ALL;server=ALL;instance=ALL;clusterMode=0;\n";
}

bool readFileRequest(std::string_view line, FileRequest& request) {
    constexpr std::string_view kFile = "vx_control_req:action=send_file;";
    constexpr std::string_view kProfile = "vx_control_req:action=send_instrumentation_profile;";
    constexpr std::string_view kProfileField = "instrProfile=";
    if (line.starts_with(kFile)) {
        request = {FileKind::kKeyword, fieldOf(line.substr(kFile.size()), "keyword")};
        return true;
    }
    if (!line.starts_with(kProfile)) return false;
    const std::size_t at = line.find(kProfileField, kProfile.size());
    request = {FileKind::kProfile,
               at == std::string_view::npos ? std::string_view() : line.substr(at + kProfileField.size())};
    return true;
}

bool readKeywords(const std::string& path, std::string& keywords, std::string& error) {
    std::ifstream file(path);
    if (!file) {
        error = "cannot read the keywords file '" + path + "'";
        return false;
    }
    keywords.clear();
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == ';'))
            line.pop_back();
        if (line.empty() || line.front() == '#') continue;
        if (line.find('=') == std::string::npos || line.find('=') == 0) {
            error = path + ":" + std::to_string(number);
            error += ": not key=value: '" + line + "'";
            return false;
        }
        if (!keywords.empty()) keywords += ';';
        keywords += line;
    }
    if (keywords.empty()) error = "no keyword in '" + path + "'";
    return !keywords.empty();
}

}  // namespace vx::collector
