// --check-rules: what a rule file means, without a service.
//
//     Program --check-rules FILE [--url URL] [--method M] [--query Q] [--header H]
//
// The file is read by the service's own parsers into a context made for it, and the request that the command
// line names is classified there; so the check can neither accept nor refuse what a service would not. Beside
// that it warns of rules that never match and of those that others always go before.
//
// It writes no file, opens no socket, and needs no more than reading rights.
//
// Threads   The main thread of a program that runs no service.
#pragma once

#include <string>

namespace vx {

inline constexpr int kRulesInOrder = 0, kRulesAtFault = 2;

// A request to be classified; null texts are not there. The URL may have "?query".
struct VXCheckedRequest {
    const char* url = nullptr;
    const char* method = nullptr;
    const char* query = nullptr;
    const char* header = nullptr;
};

// Puts into `report` each line of the file with what it means or why it has no effect, warnings, and, with a
// URL, which BT that request gets. kRulesInOrder when every line has an effect, else kRulesAtFault.
int vxCheckRules(const char* file, const VXCheckedRequest& request, std::string* report);
// The command: what stands behind --check-rules. Prints the report, or what is wrong with the arguments. The
// exit code.
int vxCheckRulesCommand(const char* program, int count, char** arguments);

}  // namespace vx
