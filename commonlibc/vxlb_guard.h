// RAII holders for APR mutexes, APR pools and C files.
//
// Every lock, pool and file of the service is held by one of these; nothing is unlocked, destroyed or
// closed by hand. A null mutex is passed over, so that code which runs before an instance's mutexes exist
// (start-up, one thread) needs no case of its own.
//
// Threads   Each holder belongs to the thread (the scope) that made it.
#pragma once

#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include <cstdio>
#include <memory>
#include <utility>

namespace vx {

// Holds an APR mutex from construction to the end of the scope, or to unlock().
class VXGuard {
public:
    explicit VXGuard(apr_thread_mutex_t* mutex) noexcept : mutex_(mutex) {
        if (mutex_) apr_thread_mutex_lock(mutex_);
    }
    ~VXGuard() { unlock(); }
    VXGuard(const VXGuard&) = delete;
    VXGuard& operator=(const VXGuard&) = delete;

    void unlock() noexcept {
        if (mutex_) apr_thread_mutex_unlock(std::exchange(mutex_, nullptr));
    }

private:
    apr_thread_mutex_t* mutex_;
};

// Owns one APR pool; a null parent makes a pool of its own.
class VXPool {
public:
    VXPool() = default;
    explicit VXPool(apr_pool_t* parent) noexcept { apr_pool_create(&pool_, parent); }
    ~VXPool() { reset(); }
    VXPool(VXPool&& other) noexcept : pool_(std::exchange(other.pool_, nullptr)) {}
    VXPool& operator=(VXPool&& other) noexcept {
        if (this != &other) {
            reset();
            pool_ = std::exchange(other.pool_, nullptr);
        }
        return *this;
    }

    apr_pool_t* get() const noexcept { return pool_; }
    apr_pool_t* release() noexcept { return std::exchange(pool_, nullptr); }
    void reset() noexcept {
        if (pool_) apr_pool_destroy(std::exchange(pool_, nullptr));
    }

private:
    apr_pool_t* pool_ = nullptr;
};

struct VXFileCloser {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
// Owns one C stream.
using VXFile = std::unique_ptr<std::FILE, VXFileCloser>;

}  // namespace vx
