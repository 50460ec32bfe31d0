#include "tools/collector/store_writer.h"

#include <cstdio>
#include <utility>

#include "commonlibc/vxlb_clock.h"

namespace vx::collector {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPatience{500};
constexpr std::chrono::seconds kLookEvery{2};

}  // namespace

StoreWriter::StoreWriter(StoreQueue& queue, std::unique_ptr<StoreSink> sink)
    : queue_(queue), sink_(std::move(sink)), thread_([this] { work(); }) {}

StoreWriter::~StoreWriter() {
    finish();
}

void StoreWriter::finish() {
    queue_.close();
    if (thread_.joinable()) thread_.join();
}

StoreWriter::Status StoreWriter::status() const {
    const std::scoped_lock lock(mutex_);
    return status_;
}

void StoreWriter::work() {
    for (;;) {
        const bool last = queue_.closed();
        const std::vector<Batch> batches = queue_.take(kPatience);
        if (!batches.empty()) writeAll(batches);
        queue_.done(batches);
        if (batches.empty() && last) return givenUp_ ? void() : look();
        if (!last) retain();
        queue_.pause(sink_->pause());
    }
}

// After a failure: at the end a sink has so many tries, and so much time, for all that waits.
bool StoreWriter::givesUp() {
    lastTries_ = queue_.closed() ? lastTries_ + 1 : 0;
    return lastTries_ > kLastTries || vxlb_steady_ms() > queue_.closedAt() + kLastTime.count();
}

void StoreWriter::writeAll(const std::vector<Batch>& batches) {
    std::uint64_t transactions = 0;
    for (const Batch& batch : batches) transactions += batch.transactions.size();
    std::string fault;
    auto answer = givenUp_ ? StoreSink::Wrote::kNever : StoreSink::Wrote::kLater;
    while (answer == StoreSink::Wrote::kLater) {
        fault.clear();
        answer = sink_->write(batches, fault);
        tellWritten(fault);
        if (answer != StoreSink::Wrote::kLater) break;
        givenUp_ = givesUp();
        if (givenUp_) answer = StoreSink::Wrote::kNever;
        if (!queue_.closed()) {
            queue_.pause(kRetryMs);
        } else if (!givenUp_) {
            std::this_thread::sleep_for(kRetryMs);
        }
    }
    const std::scoped_lock lock(mutex_);
    if (answer == StoreSink::Wrote::kNever) {
        status_.lost += transactions;
        return;
    }
    ++status_.commits;
    status_.transactions += transactions;
}

void StoreWriter::retain() {
    const auto end = Clock::now() + kRetainMs;
    std::string fault;
    while (sink_->retain(epochNow(), fault) && Clock::now() < end) {
    }
    tellRetained(fault);
    if (Clock::now() >= looked_ + kLookEvery) look();
}

void StoreWriter::look() {
    looked_ = Clock::now();
    const StoreSink::Holds holds = sink_->holds();
    const std::scoped_lock lock(mutex_);
    status_.holds = holds;
}

// Each new state of things once.
void StoreWriter::tellWritten(const std::string& fault) {
    const std::scoped_lock lock(mutex_);
    if (fault == status_.fault) return;
    if (fault.empty()) {
        std::fputs("vxcollector: the store takes records again\n", stderr);
    } else {
        std::fprintf(stderr, "vxcollector: the store takes no records: %s\n", fault.c_str());
    }
    status_.fault = fault;
}

// Beside the other: what cannot be given up now can often be written, and the other way round.
void StoreWriter::tellRetained(const std::string& fault) {
    if (fault == retainFault_) return;
    if (fault.empty()) {
        std::fputs("vxcollector: the store gives old rows up again\n", stderr);
    } else {
        std::fprintf(stderr, "vxcollector: the store cannot give old rows up, and grows: %s\n",
                     fault.c_str());
    }
    retainFault_ = fault;
}

}  // namespace vx::collector
