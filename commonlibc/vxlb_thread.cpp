#include "commonlibc/vxlb_thread.h"

#include "commonlibc/platform/vx_platform_crash.h"

namespace vx {

namespace {

struct ThreadStart {
    apr_thread_start_t function;
    void* argument;
};

// Every thread can tell of its own fall.
void* APR_THREAD_FUNC runThread(apr_thread_t* thread, void* given) {
    const VXCrashStack crashStack;
    const ThreadStart start = *static_cast<ThreadStart*>(given);
    return start.function(thread, start.argument);
}

}  // namespace

apr_status_t vxlb_thread_create(apr_thread_t** threadOut, apr_threadattr_t* attributes,
                                apr_thread_start_t function, void* argument, apr_pool_t* pool) {
    if (!attributes) {
        apr_status_t status = apr_threadattr_create(&attributes, pool);
        if (status == APR_SUCCESS) status = apr_threadattr_detach_set(attributes, 1);
        if (status != APR_SUCCESS) return status;
    }
    auto* start = static_cast<ThreadStart*>(apr_palloc(pool, sizeof(ThreadStart)));
    if (!start) return APR_ENOMEM;
    *start = {function, argument};
    return apr_thread_create(threadOut, attributes, runThread, start, pool);
}

apr_status_t vxlb_thread_start(apr_thread_t*& thread, apr_pool_t*& pool, apr_pool_t* parent,
                               apr_thread_start_t function, void* argument) {
    apr_threadattr_t* attributes = nullptr;
    apr_status_t status = apr_pool_create(&pool, parent);
    if (status == APR_SUCCESS) status = apr_threadattr_create(&attributes, pool);
    if (status == APR_SUCCESS) status = vxlb_thread_create(&thread, attributes, function, argument, pool);
    if (status != APR_SUCCESS) thread = nullptr;
    return status;
}

void vxlb_thread_join(apr_thread_t*& thread, apr_pool_t*& pool) {
    apr_status_t result = APR_SUCCESS;
    if (thread) apr_thread_join(&result, thread);
    thread = nullptr;
    if (pool) apr_pool_destroy(pool);
    pool = nullptr;
}

bool vxlb_make_mutex(apr_thread_mutex_t*& mutex, apr_pool_t* pool) {
    if (mutex) return true;
    return apr_thread_mutex_create(&mutex, APR_THREAD_MUTEX_NESTED, pool) == APR_SUCCESS;
}

}  // namespace vx
