// What differs between operating systems, behind one header; one folder per system implements it.
//
// Threads   Any; no state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vx {

inline constexpr char kPathSeparator = '/';

// Joins with the platform's separator, cut at size - 1. The length.
std::size_t vx_path_join(char* out, std::size_t size, const char* folder, const char* name);
// Process id.
std::int64_t vx_platform_process_id();
// Thread id of the calling thread as the system names it.
std::int64_t vx_platform_thread_id();
// Physical memory in MB, 0 when unknown.
std::int64_t vx_platform_total_memory_mb();
// Asks the system to keep small pages for a block of which most is never touched: with large ones, a single
// byte would make two megabytes resident.
void vx_platform_small_pages(void* block, std::size_t size);
// True when an APR status of a send means that the connection is gone (end of file, broken pipe, reset,
// time-out of the connection).
bool vx_platform_connection_lost(int aprStatus);
// Bytes that a TCP connection was given and the other host has not acknowledged (an end that was ordered
// counts as one), also after its loss; -1 where the system cannot tell.
std::int64_t vx_platform_unacknowledged(int descriptor);
// True when a connection was reset, has failed, or has ended in both directions.
bool vx_platform_connection_failed(int descriptor);
// Closing the socket will reset the connection: what has not been sent is not sent any more.
void vx_platform_reset_on_close(int descriptor);
// Local calendar time: fills year (four digits), month (1-12), day, hour, minute, second. False on failure.
struct VXCalendar {
    int year, month, day, hour, minute, second;
};
bool vx_platform_local_time(std::int64_t epochUs, VXCalendar* out);

}  // namespace vx
