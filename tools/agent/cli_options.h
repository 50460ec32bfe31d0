// Options of vxagent's modes: one row each, from which parsing, ranges and help come.
//
// Threads   Start-up.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace vx::agent {

enum class OptionKind : std::uint8_t { kFlag, kText, kNumber, kCount, kAddress };

struct Option {
    const char* name;      // as in "--file"
    const char* argument;  // as in "FILE"; null for a flag
    const char* help;
    OptionKind kind;
    void* target;  // bool, std::string, double (number and count, which is whole) or Address
    bool required = false;
    double least = 0, most = 0;  // of a number or a count
};

struct Address {
    std::string host;
    int port = 0;
};

// Who reports, and to which proxy.
struct CommonOptions {
    Address proxy;
    std::string application = "default", tier = "web", server, agent = "vxagent", type = "Java";
    double waitSeconds = 30;
    bool udp = false, ws = false, wss = false;
    std::string function;  // with udp; empty: the agent's name
};

// Reads argv behind the mode's name. False with the reason in `error`.
bool parseOptions(std::span<const Option> options, int argc, char** argv, std::string& error);
void printOptions(std::span<const Option> options);

}  // namespace vx::agent
