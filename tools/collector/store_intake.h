// Records to rows: joins the lines of each transaction, adds up sums, and hands batches to the queue.
//
//     2, 3, 12, 13, 19, 38 --kept with their transaction-->  4: one row, its lines, callouts, exceptions
//     5, 6, 7, 32 to 36    --a name, when it is new or another one-->  names
//     61, 63, 74, 75       --as they come-->  monitors
//
// A batch goes out every kFlushEvery, and earlier when it is large; sums join it every kGatherEvery. When the
// queue has no room, transactions are dropped and counted; sums, names and what else is small waits here
// until there is room.
//
// Limits    Lines and texts of transactions in flight: kMostOpenBytes together, kMostLines of one (the rest
// is cut,
//           marked by a line "..."), for kOpenFor. The oldest gives way and counts as incomplete. What waits
//           here for room in the queue: kMostPending bytes.
// Units     `now` is milliseconds since the Unix epoch.
// Threads   One; dropped() and lostSums() by any.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/collector/collector_instance.h"
#include "tools/collector/collector_protocol.h"
#include "tools/collector/collector_records.h"
#include "tools/collector/store_queue.h"
#include "tools/collector/store_sums.h"

namespace vx::collector {

inline constexpr std::size_t kMostOpenBytes = std::size_t{64} * 1024 * 1024;
inline constexpr std::size_t kMostLines = std::size_t{256} * 1024;
inline constexpr std::size_t kMostPending = std::size_t{16} * 1024 * 1024;
inline constexpr std::size_t kLargeBatch = std::size_t{2} * 1024 * 1024;
inline constexpr std::int64_t kFlushEvery = 250, kGatherEvery = 1000;
inline constexpr std::int64_t kOpenFor = 3'600'000;

class StoreIntake {
public:
    // `nextId` is greater than every id that the store has.
    StoreIntake(StoreQueue& queue, std::int64_t nextId) : queue_(queue), nextId_(nextId) {}

    // Names that the store has of former times: an instance that goes on does not tell them again.
    void remember(std::vector<StoredName> names);
    // Gives an instance that is new here what is remembered of it.
    void recall(InstanceState& instance);
    // A connection of that kind begins or ends.
    void opened(StreamKind kind, const Identity& identity, std::int64_t now);
    void closed(StreamKind kind, const Identity& identity, std::int64_t now);
    // An instance is forgotten: what it had in flight counts as incomplete.
    void giveUp(const std::string& name, std::int64_t now);
    // A line of a data or auto-sensor connection, after `instance` has learnt from it. `separator` is that of
    // the monitors' names.
    void line(StreamKind kind, std::string_view line, const InstanceState& instance, char separator,
              std::int64_t now);
    // A start line's epoch base counts for every instance from now on.
    void ordered(std::string_view line);
    void compared(const InstanceState& instance, const Answers& answers, std::int64_t now);
    // Hands over what is due; `last` everything.
    void flush(std::int64_t now, bool last = false);

    // Transactions that found no room, since the start.
    std::uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }
    // Occurrences that are in no sum: there was no room for it.
    std::uint64_t lostSums() const { return lostSums_.load(std::memory_order_relaxed); }

private:
    struct Feed;
    struct Open {
        TransactionRow row;
        std::string lines;
        std::int64_t since = 0;  // steady ms
        bool begun = false;      // its 2 record has come
        bool cut = false;
        std::list<std::pair<Feed*, std::int64_t>>::iterator age;
    };
    struct Feed {
        InstanceRow row;
        std::int64_t told = 0;  // row.lastAt as it was written; 0: the row has to be written
        std::unordered_map<std::int64_t, Open> open;
        std::unordered_map<std::uint64_t, std::size_t> names;  // hash of the name, by kind and id
        LinkRow link;
    };

    Feed& feedOf(const std::string& name, std::int64_t now);
    LinkRow& linkOf(Feed& feed, std::int64_t now);
    void putLink(Feed& feed);
    void putInstance(Feed& feed);
    void dataLine(std::string_view line, Feed& feed, const InstanceState& instance, std::int64_t now);
    void name(int number, std::string_view rest, Feed& feed);
    Open& openOf(Feed& feed, std::int64_t flowpath, std::int64_t now);
    void keep(Open& open, std::string_view line);
    void forgetOpen(Feed& feed, std::int64_t now);
    void forget(Feed& feed, std::unordered_map<std::int64_t, Open>::iterator at);
    void makeRoom(std::int64_t now);
    void begin(std::string_view rest, std::string_view line, Feed& feed, std::int64_t now);
    void end(std::string_view rest, std::string_view line, Feed& feed, const InstanceState& instance,
             std::int64_t now);
    void items(StoredTransaction& stored, const InstanceState& instance, const Feed& feed);
    void sequence(std::string_view blob, StoredTransaction& stored, const InstanceState& instance);
    void callout(const BlobItem& item, StoredTransaction& stored, const InstanceState& instance);
    void exception(std::string_view rest, StoredTransaction& stored, const InstanceState& instance,
                   const Feed& feed);
    void add(Monitored kind, const TransactionRow& in, std::string_view name, const Figures& figures,
             std::int64_t us);
    void monitor(std::string_view line, Feed& feed, const InstanceState& instance, char separator,
                 std::int64_t now);
    void gather(std::int64_t now);  // what is added up joins the batch
    void dropTransactions();
    void dropRest();

    StoreQueue& queue_;
    std::int64_t nextId_;
    std::int64_t epochMs_ = 1'388'534'400'000;  // start of 2014 in UTC: what instances begin with
    std::map<std::string, Feed, std::less<>> feeds_;
    std::unordered_map<std::int64_t, std::vector<StoredName>> remembered_;  // by instance
    std::list<std::pair<Feed*, std::int64_t>> ages_;  // transactions in flight, oldest first
    std::size_t openBytes_ = 0;
    StoreSums sums_;
    Batch batch_;
    std::size_t stayed_ = 0;  // bytes of the batch that found no room the last time
    std::int64_t flushed_ = 0, gathered_ = 0;
    std::atomic<std::uint64_t> dropped_{0}, lostSums_{0};
};

}  // namespace vx::collector
