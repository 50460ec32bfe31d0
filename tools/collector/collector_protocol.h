// Control protocol: the lines a collector reads and writes, as texts.
//
// Threads   One; no state but Identities.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "tools/collector/collector_files.h"
#include "tools/collector/collector_options.h"

namespace vx::collector {

enum class StreamKind { kUnknown, kControl, kData, kAutoSensor, kDiscovery };
const char* kindText(StreamKind kind);
// Kind of a connection by its first line.
StreamKind kindOf(std::string_view firstLine);

// Value of `key` in a ";"-separated line of key=value fields; empty when absent.
std::string_view fieldOf(std::string_view line, std::string_view key);

// Who a connect line announces.
struct Identity {
    std::string tier, server, app, agent;
    std::string text() const { return tier + "/" + server + "/" + app + (agent.empty() ? "" : "/" + agent); }
};
Identity identityOf(std::string_view connectLine);

// Ids are given out in order, one per name, and stay until the instance is forgotten; none is given twice.
struct Ids {
    std::map<std::string, int, std::less<>> known;
    int last = 0;
};
struct Identities {
    Ids tiers, servers, apps, instances;
};
struct GivenIds {
    int tierID, vxAppServerID, appID, instance;
};
GivenIds idsOf(Identities& identities, const Identity& identity);
// Gives up the ids of an instance ("Tier/host/app/agent") and those that only it had.
void forgetIds(Identities& identities, const std::string& instance);

// The reply to a connect line. Names state, retryPolicy and ProtoVersion within its first five fields, and
// the protocols of the offer; without one those that the instance says it has, with its own ports.
std::string connectReply(std::string_view connectLine, const Options& options, int instance);
// The start line: `keywords` is "key=value;key=value" or empty for the default ones, `fields` what
// startFields() says of the files.
std::string startLine(const std::string& keywords, const std::string& fields, const GivenIds& ids,
                      int testIdx);
std::string stopLine();
std::string modifyLine(std::string_view keywords);
std::string heartbeatLine(int number);
std::string threadDumpLine();
std::string discoverLine(int testIdx);
std::string metadataLine();
// What datagram clients are to have for so long; 0 seconds: not any more. `fields` is "key=value;..." or
// empty.
std::string ruckusLine(std::string_view id, int seconds, std::string_view fields);
std::string rerouteLine(std::string_view host, int port);
// An instance's request for a file; `name` borrows from the line.
struct FileRequest {
    FileKind kind;
    std::string_view name;
};
bool readFileRequest(std::string_view line, FileRequest& request);
// Reads a keywords file into "key=value;key=value"; '#' starts a comment line. False with `error` set.
bool readKeywords(const std::string& path, std::string& keywords, std::string& error);

}  // namespace vx::collector
