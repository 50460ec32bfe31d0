#include <apr_errno.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "commonlibc/platform/vx_platform.h"

namespace vx {

std::size_t vx_path_join(char* out, std::size_t size, const char* folder, const char* name) {
    if (size == 0) return 0;
    const int whole = std::snprintf(out, size, "%s%c%s", folder, kPathSeparator, name);
    if (whole < 0) {
        *out = '\0';
        return 0;
    }
    const auto length = static_cast<std::size_t>(whole);
    return length < size ? length : size - 1;
}

std::int64_t vx_platform_process_id() {
    return ::getpid();
}

std::int64_t vx_platform_thread_id() {
    return ::syscall(SYS_gettid);
}

std::int64_t vx_platform_total_memory_mb() {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) return 0;
    return static_cast<std::int64_t>(pages) * pageSize / std::int64_t{1048576};
}

void vx_platform_small_pages(void* block, std::size_t size) {
#ifdef MADV_NOHUGEPAGE
    // Only whole pages can be named; what lies beside them is less than one.
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto from = (reinterpret_cast<std::uintptr_t>(block) + page - 1) / page * page;
    const auto to = (reinterpret_cast<std::uintptr_t>(block) + size) / page * page;
    if (from < to) ::madvise(reinterpret_cast<void*>(from), to - from, MADV_NOHUGEPAGE);
#else
    static_cast<void>(block);
    static_cast<void>(size);
#endif
}

bool vx_platform_connection_lost(int aprStatus) {
    return APR_STATUS_IS_EOF(aprStatus) || APR_STATUS_IS_EPIPE(aprStatus) ||
           APR_STATUS_IS_ECONNRESET(aprStatus) || APR_STATUS_IS_ECONNABORTED(aprStatus) ||
           APR_STATUS_IS_ETIMEDOUT(aprStatus) || aprStatus == ENOTCONN;
}

std::int64_t vx_platform_unacknowledged(int descriptor) {
    int bytes = 0;
    return ::ioctl(descriptor, SIOCOUTQ, &bytes) == 0 ? bytes : -1;
}

bool vx_platform_connection_failed(int descriptor) {
    pollfd entry{descriptor, 0, 0};
    return ::poll(&entry, 1, 0) > 0 && (entry.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
}

void vx_platform_reset_on_close(int descriptor) {
    const linger atOnce{1, 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
}

bool vx_platform_local_time(std::int64_t epochUs, VXCalendar* out) {
    const auto seconds = static_cast<std::time_t>(epochUs / 1000000);
    std::tm local{};
    if (!::localtime_r(&seconds, &local)) return false;
    *out = {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec};
    return true;
}

}  // namespace vx
