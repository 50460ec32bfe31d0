#include "commonlibc/vxlb_sock.h"

#include <apr_errno.h>
#include <apr_portable.h>
#include <apr_strings.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/platform/vx_platform_send.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr std::int64_t kConnectTimeUs = 10000000;  // bounds a connect whose caller names no time
constexpr int kUnsupportedProxyConType = 1;
constexpr int kWaitStepMs = 100;
constexpr int kBacklog = INT_MAX;  // the system takes its own maximum

void errorText(char* error, apr_status_t status) {
    if (error) apr_strerror(status, error, kSockErrorSize);
}

void errorText(char* error, const char* text) {
    if (error) vxlb_copy_text(error, kSockErrorSize, text);
}

// The text with the code behind it.
void errorTextAndCode(char* error, apr_status_t status) {
    if (!error) return;
    apr_strerror(status, error, kSockErrorSize);
    const std::size_t length = std::strlen(error);
    std::snprintf(error + length, kSockErrorSize - length, " (%d)", status);
}

// Closes a half-made socket and hands its error on.
apr_socket_t* givenUp(apr_socket_t* socket, apr_status_t status, char* error) {
    if (socket) apr_socket_close(socket);
    errorText(error, status);
    return nullptr;
}

bool refusedByProxyType() {
    const vxApplication* app = vxCurrent();
    if (!app || !app->VXSys.proxyMode) return false;
    return vx_word_get(app->VXSys.proxyConType) == kUnsupportedProxyConType;
}

// A TCP socket of IPv4 and the address it is for.
apr_status_t makeTcpSocket(const char* host, int port, apr_pool_t* pool, apr_socket_t*& socket,
                           apr_sockaddr_t*& address) {
    // APR takes a missing host as every address, and cuts a port to 16 bits.
    if (!host || !*host || port < 0 || port > APR_UINT16_MAX) return APR_EINVAL;
    const apr_status_t status =
        apr_sockaddr_info_get(&address, host, APR_INET, static_cast<apr_port_t>(port), 0, pool);
    if (status != APR_SUCCESS) return status;
    return apr_socket_create(&socket, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool);
}

// Moves the pending part to the front of `buffer`. Its length.
int takePending(char* buffer, int room, char** pendingPointer, int* pendingLength) {
    if (!pendingPointer || !*pendingPointer || !pendingLength || *pendingLength < 1) return 0;
    const int length = std::min(*pendingLength, room);
    std::memmove(buffer, *pendingPointer, static_cast<std::size_t>(length));
    buffer[length] = '\0';
    *pendingPointer = nullptr;
    *pendingLength = 0;
    return length;
}

int lineReadFailed(apr_status_t status, char* error) {
    errorTextAndCode(error, status);
    if (APR_STATUS_IS_TIMEUP(status)) return kSockTimeout;
    return APR_STATUS_IS_EOF(status) ? kSockClosed : kSockOther;
}

std::int64_t sendFailed(apr_status_t status, char* error) {
    char own[kSockErrorSize];
    apr_strerror(status, own, sizeof(own));
    errorText(error, own);
    if (APR_STATUS_IS_TIMEUP(status)) {
        VX_TRACE(1, kControlThread, kError, "Send Failed '%d', %s", status, own);
        return kSockTimeout;
    }
    VX_TRACE(1, kControlThread, kError, "Send Failed while sending buffer'%d', %s", status, own);
    return kSockClosed;
}

std::int64_t noSocket(const char* text, char* error) {
    errorText(error, text);
    VX_TRACE(1, kControlThread, kError, "%s", text);
    return kSockClosed;
}

// Offers the data to sendSome(part, length) until all has gone.
template <class SendSome>
std::int64_t sendAll(const char* data, std::int64_t length, char* error, SendSome sendSome) {
    std::int64_t sent = 0;
    while (sent < length) {
        auto part = static_cast<apr_size_t>(length - sent);
        const apr_status_t status = sendSome(data + sent, &part);
        sent += static_cast<std::int64_t>(part);
        if (status != APR_SUCCESS) return sendFailed(status, error);
    }
    return sent;
}

}  // namespace

apr_socket_t* vxlb_create_client_con(const char* host, int port, apr_pool_t* pool, std::int64_t timeout,
                                     char* error) {
    if (refusedByProxyType()) {
        errorText(error, "Proxy conntype 1 is not supported.");
        VX_TRACE(1, kControlThread, kError, "Proxy conntype 1 is not supported.");
        return nullptr;
    }
    apr_socket_t* socket = nullptr;
    apr_sockaddr_t* address = nullptr;
    apr_status_t status = makeTcpSocket(host, port, pool, socket, address);
    if (status == APR_SUCCESS)
        status = apr_socket_timeout_set(socket, timeout > 0 ? timeout : kConnectTimeUs);
    if (status == APR_SUCCESS) status = apr_socket_connect(socket, address);
    if (status == APR_SUCCESS) status = apr_socket_timeout_set(socket, timeout);
    return status == APR_SUCCESS ? socket : givenUp(socket, status, error);
}

apr_socket_t* create_socket_and_bind(int port, apr_pool_t* parent, char* error) {
    apr_pool_t* pool = nullptr;  // a failed attempt is repeated for as long as the port is taken
    if (apr_pool_create(&pool, parent) != APR_SUCCESS) return givenUp(nullptr, APR_ENOPOOL, error);
    apr_socket_t* socket = nullptr;
    apr_sockaddr_t* address = nullptr;
    apr_status_t status = makeTcpSocket("0.0.0.0", port, pool, socket, address);
    if (status == APR_SUCCESS) status = apr_socket_opt_set(socket, APR_SO_REUSEADDR, 1);
    if (status == APR_SUCCESS) status = apr_socket_bind(socket, address);
    if (status == APR_SUCCESS) status = apr_socket_listen(socket, kBacklog);
    if (status == APR_SUCCESS) return socket;
    givenUp(socket, status, error);
    apr_pool_destroy(pool);
    return nullptr;
}

int vxlb_read_line(apr_socket_t* socket, char* buffer, int size, char** pendingPointer, int* pendingLength,
                   char* error) {
    if (!socket || size < 1) return lineReadFailed(APR_EINVAL, error);
    const int room = size - 1;
    int held = takePending(buffer, room, pendingPointer, pendingLength);
    while (held < room) {
        auto count = static_cast<apr_size_t>(room - held);
        const apr_status_t status = apr_socket_recv(socket, buffer + held, &count);
        if (status != APR_SUCCESS) return lineReadFailed(status, error);
        if (count == 0) return kSockNoBytes;
        const int from = held;
        held += static_cast<int>(count);
        buffer[held] = '\0';
        if (std::memchr(buffer + from, '\n', count)) return held;
    }
    VX_TRACE(
        1, kControlThread, kError,
        "Return Partial Buffer as buffer get full, and still 'New Line' to received, received bytes '%d'.",
        held);
    return kSockFull;
}

std::int64_t vxlb_read_n_bytes(apr_socket_t* socket, char* buffer, std::int64_t size, char* error) {
    std::int64_t held = 0;
    while (held < size - 1) {
        auto count = static_cast<apr_size_t>(size - 1 - held);
        const apr_status_t status = socket ? apr_socket_recv(socket, buffer + held, &count) : APR_EINVAL;
        if (APR_STATUS_IS_TIMEUP(status)) {
            errorText(error, status);
            return kSockTimeout;
        }
        if (status != APR_SUCCESS || count == 0) {
            errorText(error, status);
            VX_TRACE(1, kControlThread, kError, "Error while reading receiving message from VXC. rv = %d",
                     status);
            return kSockClosed;
        }
        held += static_cast<std::int64_t>(count);
        buffer[held] = '\0';
    }
    VX_TRACE(2, kControlThread, kInfo, "Cannot read line because buf size > %lld\n",
             static_cast<long long>(size));
    return held;
}

int vxlb_read_bytes(apr_socket_t* socket, char* buffer, int size, char* error) {
    if (size <= 1) return kSockClosed;
    auto count = static_cast<apr_size_t>(size - 1);
    const apr_status_t status = socket ? apr_socket_recv(socket, buffer, &count) : APR_EINVAL;
    if (status != APR_SUCCESS) errorText(error, status);
    if (APR_STATUS_IS_EOF(status)) return kSockClosed;
    if (status != APR_SUCCESS || count == 0) return kSockFailed;
    buffer[count] = '\0';
    return static_cast<int>(count);
}

std::int64_t vxlb_send_n_bytes(apr_socket_t* socket, const char* data, std::int64_t length, char* error) {
    if (!socket) return noSocket("Socket is NULL, returning.", error);
    return sendAll(data, length, error, [socket](const char* part, apr_size_t* size) {
        return apr_socket_send(socket, part, size);
    });
}

std::int64_t vxlb_sendto_n_bytes(apr_socket_t* socket, apr_sockaddr_t* address, const char* data,
                                 std::int64_t length, char* error) {
    if (!socket) return noSocket("UDP Socket is NULL, returning.", error);
    return sendAll(data, length, error, [socket, address](const char* part, apr_size_t* size) {
        return apr_socket_sendto(socket, address, 0, part, size);
    });
}

bool vxlb_send_within(int descriptor, const char* data, std::size_t length, VXSendLimit& limit) {
    while (length > 0) {
        const std::int64_t taken = vx_platform_send_now(descriptor, data, length);
        if (taken < 0) return false;
        data += taken;
        length -= static_cast<std::size_t>(taken);
        if (length > 0 && limit.over()) return false;
        if (taken > 0) continue;
        const auto before = VXSendLimit::Clock::now();
        vx_platform_wait_writable(descriptor, kWaitStepMs);
        limit.waits -=
            std::chrono::duration_cast<std::chrono::microseconds>(VXSendLimit::Clock::now() - before);
    }
    return true;
}

int get_ip_port(apr_socket_t* socket, char* ipBuffer, std::size_t ipSize, int* portOut, VXSocketEnd which) {
    if (!socket || !ipBuffer || ipSize == 0 || !portOut) {
        VX_TRACE(1, kControlThread, kError, "Invalid input provided, now returning");
        return -1;
    }
    apr_sockaddr_t* address = nullptr;
    const apr_interface_e end = which == VXSocketEnd::kLocal ? APR_LOCAL : APR_REMOTE;
    if (apr_socket_addr_get(&address, end, socket) != APR_SUCCESS || !address) {
        VX_TRACE(1, kControlThread, kError, "Error in getting sock_addr, now returning");
        return -1;
    }
    if (apr_sockaddr_ip_getbuf(ipBuffer, static_cast<apr_size_t>(ipSize), address) != APR_SUCCESS) {
        VX_TRACE(1, kControlThread, kError, "Error in getting ip from sock_addr, now returning");
        return -1;
    }
    *portOut = address->port;
    return 0;
}

int vxlb_socket_fd(apr_socket_t* socket) {
    apr_os_sock_t descriptor = -1;
    if (socket && apr_os_sock_get(&descriptor, socket) != APR_SUCCESS) return -1;
    return descriptor;
}

void vxlb_shared_put(VXSharedSocket& handle, apr_socket_t* socket) {
    const VXGuard guard(handle.closeMutex);
    handle.socket.store(socket, std::memory_order_release);
}

void vxlb_shared_close(VXSharedSocket& handle) {
    const VXGuard guard(handle.closeMutex);
    apr_socket_t* socket = handle.socket.exchange(nullptr, std::memory_order_acq_rel);
    if (socket) apr_socket_close(socket);
}

void vxlb_shared_shutdown(VXSharedSocket& handle, const apr_socket_t* only) {
    const VXGuard guard(handle.closeMutex);
    apr_socket_t* socket = handle.get();
    if (socket && (!only || socket == only)) apr_socket_shutdown(socket, APR_SHUTDOWN_READWRITE);
}

}  // namespace vx
