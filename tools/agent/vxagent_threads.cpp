#include "tools/agent/vxagent_threads.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace vx::agent {
namespace {

// First line of a file of /proc, without what would break the dump's form.
std::string firstLine(const std::filesystem::path& path) {
    std::string line;
    std::getline(std::ifstream(path) >> std::ws, line);
    for (char& byte : line)
        if (byte == '$' || static_cast<unsigned char>(byte) < ' ') byte = '?';
    return line;
}

// The letter behind the name in brackets, which may hold anything itself.
char stateOf(const std::filesystem::path& folder) {
    const std::string line = firstLine(folder / "stat");
    const std::size_t bracket = line.rfind(')');
    return bracket != std::string::npos && bracket + 2 < line.size() ? line[bracket + 2] : '?';
}

}  // namespace

std::string threadDumpLine() {
    std::string line = "thread_dump:Threads of process " + std::to_string(getpid()) + "$";
    std::error_code error;
    for (std::filesystem::directory_iterator at("/proc/self/task", error), end; !error && at != end;
         at.increment(error)) {
        const std::string text = "\"" + firstLine(at->path() / "comm") +
                                 "\" tid=" + at->path().filename().string() +
                                 " state=" + stateOf(at->path()) + "$";
        if (line.size() + text.size() >= kThreadDumpMax) break;
        line += text;
    }
    return line + "\n";
}

}  // namespace vx::agent
