// The crash dump: what a process that falls leaves behind, and where.
//
// A fault (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT) writes "<folder>/example_<random>.txt" on the faulting
// thread and ends the process with exit code 1:
//
//     Stack Trace with current ThreadID: 4711
//     Signal 11, code 1, address 0x0, at 0x55E0A1B2C3D4, process 4700, VXProxyService 1.0.0
//     [0] _ZN2vx8takeLineEv - 0x55E0A1B2C3D4
//     [0] _ZN2vx8takeLineEv - 0x55E0A1B2C3D4, /opt/vx/VXProxyService+0x2C3D4
//
// Names are those of the symbol tables (c++filt reads them); what stands behind "+" is for addr2line. All
// that the handler needs is made ready at the start: the files and symbol tables of the modules loaded then,
// the file's name, the unwinder. In the handler itself only calls that are safe in a signal handler happen,
// and none takes a lock: symbol tables are read from the files by pread(), and only while those files are the
// ones that were loaded. A module loaded later has addresses without names.
//
// Limits    256 frames, 64 modules, names of 512 bytes. The handler has 10 s; then the process ends without
//           the rest. A second fault inside the handler ends it at once, another thread's waits for the
//           first.
// Threads   vx_crash_install: before other threads exist. Each thread needs a VXCrashStack of its own, or an
//           overflow of its stack leaves no dump.
#pragma once

#include <cstddef>

namespace vx {

inline constexpr const char* kCrashFilePrefix = "example_";
inline constexpr const char* kCrashFileSuffix = ".txt";
inline constexpr int kCrashExitCode = 1;

// Makes everything ready and takes the five signals. `program` is name and version. False when a signal
// could not be taken.
bool vx_crash_install(const char* folder, const char* program);

// The calling thread's stack for the handler, from here to the end of the scope. Nothing happens while no
// dump is installed; without memory the thread goes on without one.
class VXCrashStack {
public:
    VXCrashStack();
    ~VXCrashStack();
    VXCrashStack(const VXCrashStack&) = delete;
    VXCrashStack& operator=(const VXCrashStack&) = delete;

private:
    void* block_ = nullptr;
    void* formerStack_ = nullptr;  // what the thread had before
    std::size_t formerSize_ = 0;
    int formerFlags_ = 0;
};

}  // namespace vx
