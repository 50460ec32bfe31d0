// vxbench_service: what the whole service costs, seen from outside.
//
// Runs VXProxyService in a home of its own between an agent and a collector that only takes. Over loopback it
// gets the stream of vxbench, at a rate below what it can take, and a process that only reads and frames gets
// the same bytes in the same way, in the same run. Memory is what the system calls resident.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "bench/bench_frames.h"
#include "bench/bench_sink.h"
#include "bench/bench_stream.h"
#include "tests/support/program.h"
#include "tests/support/raw_agent.h"
#include "tests/support/temp_dir.h"

namespace vx::bench {
namespace {

using test::FakePeer, test::RawAgent;

constexpr unsigned kSeed = 20140101;
constexpr int kTransactions = 4000;
constexpr std::size_t kSendSize = 32768;  // of one send, as agents do it
constexpr double kQuietSeconds = 0.3;     // without CPU time: everything sent was taken
constexpr double kWaitSeconds = 120;

constexpr double kMostCpuRatio = 12;
constexpr long kMostIdleKb = 8 * 1024;
constexpr double kMostLiveKb = 6;
constexpr long kMostGrowthKb = 1024;

struct Options {
    std::int64_t records = 5000000;
    std::int64_t transactions = 100000;  // the growth is that from these to ten times as many
    double rate = 1000000;               // records per second
};

// CPU seconds of a process so far.
double cpuSeconds(pid_t pid) {
    const std::string stat = test::fileText("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t name = stat.rfind(')');
    unsigned long user = 0, system = 0;
    if (name == std::string::npos ||
        std::sscanf(stat.c_str() + name + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
                    &system) != 2)
        return 0;
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void sleepFor(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Until the process has used no CPU time for a moment.
void awaitQuiet(pid_t pid) {
    double before = -1, now = cpuSeconds(pid);
    for (double waited = 0; now > before && waited < kWaitSeconds; waited += kQuietSeconds) {
        before = now;
        sleepFor(kQuietSeconds);
        now = cpuSeconds(pid);
    }
}

// Sends `bytes` again and again until `records` are out, at the rate asked for.
void sendStream(const FakePeer& to, const Stream& stream, std::int64_t records, double rate) {
    const auto before = std::chrono::steady_clock::now();
    const double bytesPerSecond =
        rate * static_cast<double>(stream.bytes.size()) / static_cast<double>(stream.records);
    double sent = 0;
    for (std::int64_t done = 0; done < records; done += stream.records)
        for (std::size_t at = 0; at < stream.bytes.size(); at += kSendSize) {
            const std::string piece = stream.bytes.substr(at, kSendSize);
            if (!to.send(piece)) return;
            sent += static_cast<double>(piece.size());
            std::this_thread::sleep_until(before + std::chrono::duration<double>(sent / bytesPerSecond));
        }
}

// CPU seconds of a process that reads and frames what the service gets.
double frameOverLoopback(const Stream& stream, std::int64_t records, double rate) {
    const test::FakeCollector listener;
    FakePeer sender = test::connectTo(listener.port());
    FakePeer receiver = listener.accept();
    const pid_t pid = fork();
    if (pid == 0) {
        sender.close();
        _exit(readAndFrame(receiver.descriptor()) >= records ? 0 : 1);
    }
    receiver.close();
    sendStream(sender, stream, records, rate);
    awaitQuiet(pid);
    const double seconds = cpuSeconds(pid);
    sender.close();
    int status = 0;
    waitpid(pid, &status, 0);
    if (status != 0) std::printf("frames  records are missing\n");
    return seconds;
}

class Service {
public:
    bool start() {
        std::ofstream(dir_.write("proxy/config/proxysetting.conf", "")) << "proxyPort=" << port_ << "\n";
        std::ofstream(dir_.write("proxy/config/vxsettings.conf", ""))
            << "vxcHost=127.0.0.1\nvxcPort=" << sink_.port() << "\nVXC_COMM_PROTOCOL=TCP:" << sink_.port()
            << "\nCONNECTION_RETRY_TIME_INTERVAL=1\n";
        test::Program::Setup setup;
        const std::string here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
        setup.arguments = {here + "/VXProxyService"};
        setup.environment = {"VXHOME=" + dir_.path()};
        setup.outputFile = dir_ / "service.log";
        program_ = std::make_unique<test::Program>(setup);
        if (program_->outputHolds("listening")) return true;
        std::fprintf(stderr, "vxbench_service: %s\n", program_->output().c_str());
        return false;
    }
    // An agent that is told to start, with its data connection.
    const FakePeer* attach(RawAgent& agent) {
        if (!agent.start()) return nullptr;
        sink_.awaitData();
        const FakePeer& data = agent.openData();
        data.send("\n");
        return &data;
    }
    int port() const { return port_; }
    pid_t pid() const { return program_->pid(); }
    const DataSink& sink() const { return sink_; }
    long residentKb() const { return test::residentKb(pid()); }

private:
    test::TempDir dir_;
    DataSink sink_;
    int port_ = test::freePort();
    std::unique_ptr<test::Program> program_;
};

bool told(const char* what, double value, double most, const char* unit) {
    std::printf("%-28s %10.2f %s (at most %g)%s\n", what, value, unit, most, value <= most ? "" : " MISSED");
    std::fflush(stdout);
    return value <= most;
}

bool measureCpu(Service& service, const FakePeer& data, const Options& options) {
    const Stream stream = makeStream(kTransactions, kSeed);
    sendStream(data, stream, stream.records, options.rate);  // warms up
    awaitQuiet(service.pid());
    const double before = cpuSeconds(service.pid());
    const std::uint64_t linesBefore = service.sink().lines();
    sendStream(data, stream, options.records, options.rate);
    awaitQuiet(service.pid());
    const double used = cpuSeconds(service.pid()) - before;
    const double framing = frameOverLoopback(stream, options.records, options.rate);
    const std::int64_t rounds = (options.records + stream.records - 1) / stream.records;
    const auto records = static_cast<double>(rounds * stream.records);
    std::printf("service cpu_ns_per_record=%.1f lines_out_per_transaction=%.3f\n", used * 1e9 / records,
                static_cast<double>(service.sink().lines() - linesBefore) /
                    static_cast<double>(rounds * kTransactions));
    std::printf("frames  cpu_ns_per_record=%.1f\n", framing * 1e9 / records);
    return told("cpu against framing", used / framing, kMostCpuRatio, "times");
}

// What `live` transactions of 42 records that have not ended take, each, beyond `before` (KiB).
bool measureLive(Service& service, const FakePeer& data, int live, long before) {
    const OpenStream stream = makeOpenStream(live, kSeed);
    data.send(stream.begun);
    awaitQuiet(service.pid());
    const double each = static_cast<double>(service.residentKb() - before) / live;
    data.send(stream.ends);
    awaitQuiet(service.pid());
    const std::string what = "resident per live of " + std::to_string(live);
    return told(what.c_str(), each, kMostLiveKb, "KiB");
}

bool measureGrowth(Service& service, const FakePeer& data, const Options& options) {
    const Stream stream = makeStream(kTransactions, kSeed);
    const std::int64_t records = options.transactions * kRecordsPerTransaction;
    sendStream(data, stream, records, options.rate);
    awaitQuiet(service.pid());
    const long before = service.residentKb();
    sendStream(data, stream, 9 * records, options.rate);
    awaitQuiet(service.pid());
    return told("growth to ten times as many", static_cast<double>(service.residentKb() - before),
                kMostGrowthKb, "KiB");
}

int measureAll(const Options& options) {
    Service service;
    if (!service.start()) return 1;
    awaitQuiet(service.pid());
    bool good = told("resident idle", static_cast<double>(service.residentKb()), kMostIdleKb, "KiB");
    RawAgent agent(service.port(), "bench", 1);
    const FakePeer* data = service.attach(agent);
    if (!data) {
        std::fprintf(stderr, "vxbench_service: the service takes no records\n");
        return 1;
    }
    awaitQuiet(service.pid());
    const long started = service.residentKb();
    good &= measureLive(service, *data, 1000, started);
    good &= measureLive(service, *data, 8000, started);
    good &= measureCpu(service, *data, options);
    good &= measureGrowth(service, *data, options);
    return good ? 0 : 1;
}

int usage(int code) {
    std::fputs(
        "usage: vxbench_service [--records N] [--transactions N] [--rate N]\n"
        "  --records N        records that CPU time is measured with (default 5,000,000)\n"
        "  --transactions N   memory must not grow from these to ten times as many (default 100,000)\n"
        "  --rate N           records per second (default 1,000,000)\n"
        "Exit code 1 when a figure is missed.\n",
        code ? stderr : stdout);
    return code;
}

int run(int argc, char** argv) {
    Options options;
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) return usage(0);
    for (int i = 1; i < argc; i += 2) {
        const double value = i + 1 < argc ? std::strtod(argv[i + 1], nullptr) : 0;
        if (value < 1) return usage(2);
        if (std::strcmp(argv[i], "--records") == 0)
            options.records = static_cast<std::int64_t>(value);
        else if (std::strcmp(argv[i], "--transactions") == 0)
            options.transactions = static_cast<std::int64_t>(value);
        else if (std::strcmp(argv[i], "--rate") == 0)
            options.rate = value;
        else
            return usage(2);
    }
    return measureAll(options);
}

}  // namespace
}  // namespace vx::bench

int main(int argc, char** argv) {
    return vx::bench::run(argc, argv);
}
