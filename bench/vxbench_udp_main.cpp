// vxbench_udp: what a datagram costs, and whether short-lived functions leave anything behind.
//
//   receive   a child process sends datagrams at a steady rate over loopback; CPU per datagram of the intake
//             (receiver and workers, one heartbeat each for nobody) beside a loop that polls and receives
//   decode    records in datagrams of eight messages, beside the same records in a stream of reads
//   functions so many functions come, report one transaction and are silent: memory before and after
//
// What is compared runs in turns, several rounds; the last line has the best round of each.
//
// Usage: vxbench_udp [receive [rate [seconds of a round]] | decode | functions [count]]
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_instance.h"
#include "commonlibc/VXBCISettings.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/platform/vx_platform_udp.h"
#include "commonlibc/proxyServer/vx_proxy_instance_link.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_udp_functions.h"
#include "commonlibc/proxyServer/vx_udp_message.h"
#include "commonlibc/proxyServer/vx_udp_receiver.h"
#include "commonlibc/proxyServer/vx_udp_release.h"
#include "commonlibc/vx_agent.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_decode.h"
#include "commonlibc/vxlb_encode.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_wrap_header.h"

namespace vx::bench {
namespace {

constexpr int kRounds = 5;

std::int64_t nowUs = 1'700'000'000'000'000;  // of the scripted clock

double cpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

VXWireText wire(const char* text) {
    return {text, std::strlen(text)};
}

std::string wrapped(const VXWrapHeader& header, const std::string& payload = "") {
    std::string out(kWrapDatagramMax, '\0');
    out.resize(static_cast<std::size_t>(
        vxWrapEncode(out.data(), out.size(), header, {payload.data(), payload.size()})));
    return out;
}

template <class Record>
std::string frameOf(std::int64_t (*encode)(char*, std::size_t, const Record&), const Record& record) {
    std::string out(4096, '\0');
    out.resize(static_cast<std::size_t>(encode(out.data(), out.size(), record)));
    return out;
}

// The root of an intake whose functions have no collector.
vxApplication* makeProcess() {
    apr_initialize();
    setenv("VXHOME", "/nonexistent", 1);
    vxFillUpcalls();
    apr_pool_create(&VXProxy.listenerPool, nullptr);
    VXProxy.instanceTableSize = kInstanceTableStart;
    VXProxy.udpTableSize = 32;
    vxMakeInstanceTables();
    vxUdpMakeTables();
    vxControlThreadStarter = [](vxApplication*) { return 0; };
    vxApplication* root = vxNewApplication();
    apr_pool_create(&root->pool, nullptr);
    vxSetCurrent(root);
    vxMakeContextMutexes(*root);
    VXSysInit("proxy");
    VXBCISettingInit();
    VXProxyInstance.load()[0] = root;
    VXProxy.numInstance = 1;
    return root;
}

// Sends from 16 ports at the rate, in steps as even as the system's sleep allows. Ends the process.
[[noreturn]] void sendSteadily(int port, const std::string& bytes, int rate, int seconds) {
    int sockets[16];
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    for (int& fd : sockets) fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    const auto start = std::chrono::steady_clock::now();
    const auto count = static_cast<std::int64_t>(rate) * seconds;
    for (std::int64_t i = 0; i < count; ++i) {
        while (std::chrono::steady_clock::now() < start + std::chrono::microseconds(i * 1'000'000 / rate))
            std::this_thread::sleep_for(std::chrono::microseconds(1));
        ::sendto(sockets[i % 16], bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to),
                 sizeof(to));
    }
    ::_exit(0);
}

std::string heartbeatForNobody() {
    return wrapped({VXWrapType::kHeartbeat, 4, 0, 7, 0, {}, {}, {}, {}});
}

// CPU microseconds of this process per datagram while `child` sends.
template <class Run>
double perDatagram(int port, int rate, int seconds, Run run) {
    const pid_t child = ::fork();
    if (child == 0) sendSteadily(port, heartbeatForNobody(), rate, seconds);
    const double before = cpuSeconds();
    const std::int64_t taken = run(child);
    const double cpu = cpuSeconds() - before;
    return taken > 0 ? cpu * 1e6 / static_cast<double>(taken) : 0;
}

int freeUdpPort() {
    char error[128];
    const int fd = vx_platform_udp_open(0, 65536, error, sizeof(error));
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    vx_platform_udp_close(fd);
    return ntohs(address.sin_port);
}

double plainLoop(int rate, int seconds) {
    const int port = freeUdpPort();
    char error[128];
    const int fd = vx_platform_udp_open(port, 8 << 20, error, sizeof(error));
    const double cost = perDatagram(port, rate, seconds, [&](pid_t child) {
        char buffer[kUdpNodeSize];
        std::int64_t count = 0;
        for (;;) {
            pollfd entry{fd, POLLIN, 0};
            if (::poll(&entry, 1, 100) <= 0) {
                if (::waitpid(child, nullptr, WNOHANG) == child) return count;
                continue;
            }
            sockaddr_in from{};
            socklen_t length = sizeof(from);
            if (::recvfrom(fd, buffer, sizeof(buffer), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from),
                           &length) > 0)
                ++count;
        }
    });
    vx_platform_udp_close(fd);
    return cost;
}

double intake(int rate, int seconds) {
    VXProxy.proxyPort = freeUdpPort();
    VXProxy.numUDPThreads = 10;
    vxUdpStart();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double cost = perDatagram(VXProxy.proxyPort, rate, seconds, [&](pid_t child) {
        ::waitpid(child, nullptr, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const std::int64_t lost = std::max<std::int64_t>(vx_platform_udp_lost(VXUdp.socket), 0);
        std::printf("intake: datagrams lost = %lld\n", static_cast<long long>(lost));
        return static_cast<std::int64_t>(rate) * seconds - lost;
    });
    vxUdpStop();
    return cost;
}

void receive(int rate, int seconds) {
    const auto tell = [rate](const char* what, double plain, double ours) {
        std::printf("%s: rate = %d, poll-and-receive loop = %.2f us, intake = %.2f us, ratio = %.2f\n", what,
                    rate, plain, ours, ours / plain);
        std::fflush(stdout);
    };
    double bestPlain = 1e9, bestOurs = 1e9;
    for (int round = 0; round < kRounds; ++round) {
        const double plain = plainLoop(rate, seconds), ours = intake(rate, seconds);
        tell("round", plain, ours);
        bestPlain = std::min(bestPlain, plain);
        bestOurs = std::min(bestOurs, ours);
    }
    tell("receive", bestPlain, bestOurs);
}

std::string registration(const char* name) {
    return wrapped({VXWrapType::kHeartbeat,
                    4,
                    0,
                    kWrapIndexUnknown,
                    0,
                    wire("req-"),
                    {},
                    wire(name),
                    wire("appName=shop;tierName=Web;vxAppServerHost=host7;agentName=pay;")});
}

void hand(const std::string& bytes) {
    decode_udp_Message_wrapper(bytes.data(), static_cast<std::int32_t>(bytes.size()), {0x7F000001, 4711});
}

std::vector<std::string> transaction(std::int64_t timeUs) {
    std::vector<std::string> frames;
    frames.push_back(frameOf(transactionStartEncode,
                             VXTransactionStart{11, 0, timeUs, 1, {}, wire("/pay"), {}, {}, {}, {}}));
    for (int i = 0; i < 3; ++i) {
        frames.push_back(
            frameOf(MethodEntryEncode, VXMethodEntryRecord{0, 11, 1, timeUs, wire("a.b.c"), {}, {}, {}}));
        frames.push_back(
            frameOf(MethodExitEncode,
                    VXMethodExitRecord{200, 0, 0, 0, 1, 10, 11, 0, 0, timeUs, wire("a.b.c"), {}, {}}));
    }
    frames.push_back(frameOf(transactionEndEncode, VXTransactionEnd{200, 11, timeUs, 0, 0}));
    return frames;
}

// An instance that captures everything, with clients attached.
vxApplication& attachedInstance() {
    vxApplication* root = vxCurrent();
    vxApplication* app = openInstance();
    app->identity.lookupKey = new char[50]{};
    app->identity.udpClientMap = create_hashmap(app->pool);
    VXProxyInstance.load()[1] = app;
    VXProxy.attached.load()[1] = app;
    VXProxy.numInstance = 2;
    vxSetCurrent(root);
    return *app;
}

// Runs some times and drains in between. CPU nanoseconds of one record.
template <class Run>
double perRecord(vxApplication& app, std::size_t records, Run run) {
    constexpr int kRuns = 100;
    double cpu = 0;
    for (int i = 0; i < kRuns; ++i) {
        const double before = cpuSeconds();
        run();
        cpu += cpuSeconds() - before;
        drain(app);
    }
    return cpu * 1e9 / (static_cast<double>(records) * kRuns);
}

void decode() {
    vxApplication* root = vxCurrent();
    vxApplication& app = attachedInstance();
    constexpr std::size_t kTransactions = 200;
    std::string reads, datagram;
    const std::vector<std::string> frames = transaction(vxlb_now_us());
    for (const std::string& frame : frames)
        datagram += wrapped({VXWrapType::kRecords, 4, 11, 1, 1, {}, {}, {}, {}}, frame);
    for (std::size_t i = 0; i < kTransactions; ++i)
        for (const std::string& frame : frames) reads += frame;
    const std::size_t records = kTransactions * frames.size();
    double bestStream = 1e9, bestDatagrams = 1e9;
    for (int round = 0; round < 3 * kRounds; ++round) {
        const double stream = perRecord(app, records, [&] {
            vxSetCurrent(&app);
            decodeMessage(reads.data(), static_cast<std::int32_t>(reads.size()), 0, 0, nullptr);
            vxSetCurrent(root);
        });
        const double datagrams = perRecord(app, records, [&] {
            for (std::size_t i = 0; i < kTransactions; ++i) hand(datagram);
        });
        bestStream = std::min(bestStream, stream);
        bestDatagrams = std::min(bestDatagrams, datagrams);
    }
    std::printf("decode: stream = %.1f ns a record, datagrams = %.1f ns, ratio = %.2f\n", bestStream,
                bestDatagrams, bestDatagrams / bestStream);
}

void functions(int count) {
    vxlb_set_clock_hooks({[] { return nowUs; }, [](std::int64_t) {}, nullptr, [] { return nowUs; }});
    std::string lives;
    for (int i = 0; i <= count; ++i) {
        if (i % std::max(count / 5, 1) == 0) {
            const auto heap = mallinfo2();
            rusage usage{};
            ::getrusage(RUSAGE_SELF, &usage);
            std::printf("functions: lived = %d, heap in use = %zu KB, greatest resident = %ld KB\n", i,
                        (heap.uordblks + heap.hblkhd) / 1024, usage.ru_maxrss);
        }
        hand(registration("pay"));
        if (vxApplication* app = vxUdpPin(0)) {
            app->Server.testRunRunning = 1;
            vxUdpUnpin(*app);
        }
        std::string datagram;
        for (const std::string& frame : transaction(nowUs))
            datagram += wrapped({VXWrapType::kRecords, 4, 0, 0, 0, {}, {}, {}, {}}, frame);
        hand(datagram);
        nowUs += 1'000'000'000;
        vxUdpEndSilentFunctions(nowUs / 1000);
    }
}

int run(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "receive";
    const auto number = [&](int at, int otherwise) { return argc > at ? std::atoi(argv[at]) : otherwise; };
    makeProcess();
    if (what == "decode")
        decode();
    else if (what == "functions")
        functions(number(2, 1'000'000));
    else
        receive(std::max(number(2, 20000), 1), std::max(number(3, 2), 1));
    return 0;
}

}  // namespace
}  // namespace vx::bench

int main(int argc, char** argv) {
    return vx::bench::run(argc, argv);
}
