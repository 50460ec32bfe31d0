// Thread starter and the mutexes of an instance.
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

namespace vx {

// Starts an APR thread in `pool` (which must outlive the thread). Null attributes start it detached.
// The APR status: APR_SUCCESS (0) or the error.
apr_status_t vxlb_thread_create(apr_thread_t** threadOut, apr_threadattr_t* attributes,
                                apr_thread_start_t function, void* argument, apr_pool_t* pool);

// Starts a joinable thread in a pool of its own below `parent`. APR_SUCCESS, or the error: then there is no
// thread to join.
apr_status_t vxlb_thread_start(apr_thread_t*& thread, apr_pool_t*& pool, apr_pool_t* parent,
                               apr_thread_start_t function, void* argument);
// Waits for such a thread, if there is one, and gives its pool back; null handles are passed over.
void vxlb_thread_join(apr_thread_t*& thread, apr_pool_t*& pool);

// Makes `mutex` (nested) in `pool` if it is still null. False when it could not be made.
bool vxlb_make_mutex(apr_thread_mutex_t*& mutex, apr_pool_t* pool);

}  // namespace vx
