// Lines between an agent and the proxy: registration, the proxy's orders, the answers to them.
//
// A line is a prefix that ends in ":" and key=value fields separated by ";". Empty lines, heartbeats and
// lines of no concern to an agent of this kind are skipped.
//
// Threads   Any; no state.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vx::agent {

// Who reports, and to whom.
struct Identity {
    std::string host;
    int port = 0;
    std::string application, tier, server, agent, agentType;
    std::int64_t pid = 0;
    std::int64_t startedMs = 0;  // Unix ms
};

// What a start line gives to the data connection.
struct StartIds {
    std::int32_t appID = 0, vxAppServerID = 0, tierID = 0, testIdx = 0;
    std::string application;  // empty: the agent's own

    bool operator==(const StartIds&) const = default;
};

enum class LineKind : std::uint8_t { kOther, kReply, kStart, kStop, kThreadDump };

// True when a value can stand in a field: not empty, at most 1,023 bytes, no ";" and no control characters.
bool isFieldText(std::string_view value);
std::string controlLine(const Identity& identity, std::int64_t nowMs);
std::string dataLine(const Identity& identity, const StartIds& ids);
inline constexpr std::string_view kAcknowledgement = "vx_ctrl_msg_rep:result=Ok;\n";

LineKind kindOf(std::string_view line);
// The value of the last field of that name; `found` is empty when there is none.
bool lastField(std::string_view line, std::string_view key, std::string_view& found);
// The number in the last such field, or `otherwise`.
std::int32_t lastNumber(std::string_view line, std::string_view key, std::int32_t otherwise);
StartIds startIds(std::string_view line);

}  // namespace vx::agent
