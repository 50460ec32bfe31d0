// Where the writer puts batches: a database file, or an engine behind an address.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

#include "tools/collector/store_rows.h"

namespace vx::collector {

class StoreSink {
public:
    virtual ~StoreSink() = default;

    enum class Wrote {
        kDone,
        kLater,  // not now (no room, a lock, no connection): the same batches again after a while
        kNever   // these batches cannot be written
    };
    // Writes all of them, or none. `fault` says why not.
    virtual Wrote write(std::span<const Batch> batches, std::string& fault) = 0;
    // Gives up what is too old or too much, a slice at a time; true when there is more to do.
    virtual bool retain(std::int64_t now, std::string& fault) = 0;
    // What it holds: bytes, and the time of the oldest transaction (0: none).
    struct Holds {
        std::int64_t bytes = 0, oldestAt = 0;
    };
    virtual Holds holds() = 0;
    // How long to gather between two calls of write().
    virtual std::chrono::milliseconds pause() const { return std::chrono::milliseconds(0); }
};

}  // namespace vx::collector
