#include "commonlibc/platform/vx_platform_crash.h"

#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <span>

#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/platform/vx_platform_symbols.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr int kMaxFrames = 256;
constexpr std::size_t kPathSize = 4096;
constexpr std::size_t kLineSize = 2048;
constexpr std::size_t kStackSize = 65536;
constexpr unsigned kDumpSeconds = 10;
constexpr mode_t kFileMode = 0640;
constexpr int kNotFound = ENOENT;

// Made at the start; the handler reads it.
char dumpFolder[kPathSize];
char dumpPath[kPathSize];
char programText[128];
std::atomic<bool> installed{false};

std::atomic<std::int64_t> dumper{0};  // thread id of the one that writes the dump
// Of the dump; static, so that the handler's stack may stay small.
void* addresses[kMaxFrames];
VXFrameSymbol frames[kMaxFrames + 1];

void writeAll(int file, const VXWriter& line, const char* text) {
    std::size_t done = 0;
    while (done < line.length()) {
        const ssize_t wrote = ::write(file, text + done, line.length() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return;
        done += static_cast<std::size_t>(wrote);
    }
}

VXWriter& address(VXWriter& out, std::uintptr_t value) {
    char digits[2 * sizeof(value)];
    std::size_t at = sizeof(digits);
    do {
        digits[--at] = "0123456789ABCDEF"[value & 0xf];
        value >>= 4;
    } while (value != 0);
    return out.text("0x").bytes(digits + at, sizeof(digits) - at);
}

// Where the program was when the signal came; 0 where that is not known.
std::uintptr_t faultingInstruction(const void* context) {
#if defined(__x86_64__)
    return static_cast<std::uintptr_t>(static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
    return static_cast<std::uintptr_t>(static_cast<const ucontext_t*>(context)->uc_mcontext.pc);
#else
    static_cast<void>(context);
    return 0;
#endif
}

void writeHead(int file, const siginfo_t& info, std::uintptr_t instruction) {
    char text[kLineSize];
    VXWriter out(text, sizeof(text));
    out.text("Stack Trace with current ThreadID: ").number(vx_platform_thread_id()).put('\n');
    out.text("Signal ").number(info.si_signo).text(", code ").number(info.si_code);
    if (info.si_code <= 0) {  // by a call, not by a fault
        out.text(", sent by process ").number(info.si_pid);
    } else {
        address(out.text(", address "), reinterpret_cast<std::uintptr_t>(info.si_addr));
    }
    address(out.text(", at "), instruction);
    out.text(", process ").number(vx_platform_process_id()).text(", ").text(programText).put('\n');
    writeAll(file, out, text);
}

void writeFrame(int file, int number, const VXFrameSymbol& frame) {
    char name[kSymbolNameSize] = "?";
    char text[kLineSize];
    VXWriter out(text, sizeof(text));
    if (!vx_symbols_name(frame, name, sizeof(name))) {
        out.text("SymFromAddr failed with error ").number(kNotFound).text(" for address ");
        address(out, frame.address).put('\n');
    } else {
        address(out.put('[').number(number).text("] ").text(name).text(" - "), frame.address).put('\n');
    }
    if (frame.module) {
        address(out.put('[').number(number).text("] ").text(name).text(" - "), frame.address);
        address(out.text(", ").text(frame.module).put('+'), frame.offset).put('\n');
    }
    writeAll(file, out, text);
}

// The frames from the faulting instruction on; what the handler itself adds in front is left out. The count.
int collectFrames(std::uintptr_t instruction) {
    const int count = ::backtrace(addresses, kMaxFrames);
    const auto* const end = addresses + std::max(count, 0);
    const auto* from = std::find(static_cast<void* const*>(addresses), static_cast<void* const*>(end),
                                 reinterpret_cast<void*>(instruction));
    int taken = 0;
    frames[taken++] = {instruction, false, nullptr, 0, 0, -1};
    // Not met: the unwinder could not pass the fault, and its frames are the handler's. They show that.
    for (from = from == end ? addresses : from + 1; from < end; ++from)
        frames[taken++] = {reinterpret_cast<std::uintptr_t>(*from), true, nullptr, 0, 0, -1};
    return taken;
}

// Tells whoever reads the standard error, in one line.
void tell(const char* what, int signal, const char* path) {
    char text[kPathSize + 128];
    VXWriter out(text, sizeof(text));
    out.text(programText).text(": signal ").number(signal).text(what).text(path).put('\n');
    writeAll(STDERR_FILENO, out, text);
}

void writeDump(const siginfo_t& info, const void* context) {
    ::mkdir(dumpFolder, 0755);
    const int file = ::open(dumpPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode);
    if (file < 0) {
        tell(", Failed to open file ", info.si_signo, dumpPath);
        return;
    }
    const std::uintptr_t instruction = faultingInstruction(context);
    writeHead(file, info, instruction);  // first: what follows is less certain
    const int count = collectFrames(instruction);
    vx_symbols_find({frames, static_cast<std::size_t>(count)});
    for (int i = 0; i < count; ++i) writeFrame(file, i, frames[i]);
    ::close(file);
    tell(", stack trace in ", info.si_signo, dumpPath);
}

void onTimeOver(int /*signal*/) {
    ::_exit(kCrashExitCode);
}

void limitTime() {
    struct sigaction end {};
    end.sa_handler = onTimeOver;
    ::sigaction(SIGALRM, &end, nullptr);
    ::alarm(kDumpSeconds);
}

void onFault(int /*signal*/, siginfo_t* info, void* context) {
    const std::int64_t self = vx_platform_thread_id();
    std::int64_t nobody = 0;
    if (!dumper.compare_exchange_strong(nobody, self)) {
        if (nobody == self) ::_exit(kCrashExitCode);
        for (;;) ::pause();  // the process ends when the other thread's dump is written
    }
    limitTime();
    writeDump(*info, context);
    ::_exit(kCrashExitCode);
}

// A number of its own for each run.
int drawNumber() {
    std::uint32_t drawn = 0;
    if (::getrandom(&drawn, sizeof(drawn), 0) != sizeof(drawn))
        drawn = static_cast<std::uint32_t>(vx_platform_process_id());
    return static_cast<int>(drawn & INT32_MAX);
}

}  // namespace

bool vx_crash_install(const char* folder, const char* program) {
    char name[64];
    std::snprintf(name, sizeof(name), "%s%d%s", kCrashFilePrefix, drawNumber(), kCrashFileSuffix);
    std::snprintf(dumpFolder, sizeof(dumpFolder), "%s", folder);
    vx_path_join(dumpPath, sizeof(dumpPath), folder, name);
    std::snprintf(programText, sizeof(programText), "%s", program);
    vx_symbols_prepare();
    ::backtrace(addresses, kMaxFrames);  // loads the unwinder, which the handler must not

    struct sigaction fault {};
    fault.sa_sigaction = onFault;
    fault.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;  // a second fault comes back here, and ends
    installed.store(true, std::memory_order_release);
    bool all = true;
    for (const int signal : kFaults) all = ::sigaction(signal, &fault, nullptr) == 0 && all;
    return all;
}

VXCrashStack::VXCrashStack() {
    if (!installed.load(std::memory_order_acquire)) return;
    const auto guard = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* block = ::mmap(nullptr, guard + kStackSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) return;
    char* const usable = static_cast<char*>(block) + guard;
    stack_t stack{};
    stack_t former{};
    stack.ss_sp = usable;
    stack.ss_size = kStackSize;
    if (::mprotect(usable, kStackSize, PROT_READ | PROT_WRITE) != 0 || ::sigaltstack(&stack, &former) != 0) {
        ::munmap(block, guard + kStackSize);
        return;
    }
    block_ = block;
    formerStack_ = former.ss_sp;
    formerSize_ = former.ss_size;
    formerFlags_ = former.ss_flags;
}

VXCrashStack::~VXCrashStack() {
    if (!block_) return;
    stack_t former{};
    former.ss_sp = formerStack_;
    former.ss_size = formerSize_;
    former.ss_flags = formerFlags_;
    ::sigaltstack(&former, nullptr);
    ::munmap(block_, static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) + kStackSize);
}

}  // namespace vx
