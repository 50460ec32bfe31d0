#include "tests/support/program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "tests/support/loopback.h"

namespace vx::test {

namespace {

int exitCode(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// False when this process or a test beside it has the port already. Each holds a lock on the byte of a file
// that all of them share; the system gives it back with the process, however that ends.
bool reserve(int port) {
    static std::set<int> own;
    static const int file = ::open((std::filesystem::temp_directory_path() / "vxtest.ports").c_str(),
                                   O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    struct flock byte {};
    byte.l_type = F_WRLCK;
    byte.l_whence = SEEK_SET;
    byte.l_start = port;
    byte.l_len = 1;
    const bool taken =
        file >= 0 && ::fcntl(file, F_SETLK, &byte) != 0 && (errno == EACCES || errno == EAGAIN);
    return !taken && own.insert(port).second;
}

}  // namespace

Program::Program(const Setup& setup) : outputFile_(setup.outputFile) {
    int pipeEnds[2] = {-1, -1};
    if (::pipe2(pipeEnds, O_CLOEXEC) != 0) return;
    std::vector<char*> arguments;
    for (const std::string& argument : setup.arguments)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::setpgid(0, 0);
        for (const std::string& entry : setup.environment) ::putenv(const_cast<char*>(entry.c_str()));
        const int out = ::open(outputFile_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(pipeEnds[0], STDIN_FILENO);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    ::setpgid(pid_, pid_);  // whoever is first: from here on signals reach its own processes too
    ::close(pipeEnds[0]);
    stdin_ = pipeEnds[1];
}

Program::~Program() {
    if (running()) {
        signal(SIGKILL);
        ::waitpid(pid_, &status_, 0);
    }
    if (stdin_ >= 0) ::close(stdin_);
}

void Program::signal(int number) const {
    if (pid_ > 0) ::kill(-pid_, number);
}

void Program::say(const std::string& line) const {
    const std::string text = line + "\n";
    [[maybe_unused]] const ssize_t written = ::write(stdin_, text.data(), text.size());
}

bool Program::running() {
    if (pid_ < 0) return false;
    if (::waitpid(pid_, &status_, WNOHANG) != pid_) return true;
    pid_ = -1;
    return false;
}

int Program::wait(double seconds) {
    return eventually([this] { return !running(); }, seconds) ? exitCode(status_) : -1;
}

std::string Program::output() const {
    return fileText(outputFile_);
}

bool Program::outputHolds(const std::string& text, int count, double seconds) const {
    return eventually([&] { return occurrences(output(), text) >= count; }, seconds);
}

int occurrences(const std::string& text, const std::string& wanted) {
    int count = 0;
    for (std::size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1)) ++count;
    return count;
}

std::string programPath(const std::string& name) {
    return std::string(VX_BIN_DIR) + "/" + name;
}

// Below the ports that the system hands out by itself: a connection of a test beside this one cannot take it.
int freePort() {
    constexpr int kFirst = 12000, kCount = 20000;
    static std::minstd_rand random(std::random_device{}());
    for (;;) {
        const int port = kFirst + static_cast<int>(random() % kCount);
        if (!reserve(port)) continue;
        const int fd = boundTo(port);
        ::close(fd);
        if (fd >= 0) return port;
    }
}

std::string fileText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

long residentKb(pid_t pid) {
    const std::string status = fileText("/proc/" + std::to_string(pid) + "/status");
    const std::size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : std::strtol(status.c_str() + at + 6, nullptr, 10);
}

int descriptorsOf(pid_t pid) {
    std::error_code gone;
    int count = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone))
        count += entry.path().empty() ? 0 : 1;
    return gone ? -1 : count;
}

}  // namespace vx::test
