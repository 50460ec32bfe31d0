#include "bench/bench_stream.h"

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "commonlibc/vxlb_encode.h"

namespace vx::bench {
namespace {

constexpr std::size_t kShortestName = 20, kLongestName = 60;
constexpr std::size_t kRecordMax = 1024;
constexpr int kUrls = 50;
constexpr std::int64_t kFirstInstance = std::int64_t{65536} << 46;
constexpr std::int64_t kStartUs = 1700000000000000;
constexpr std::int64_t kPairUs = 1500;

struct Transaction {
    std::int64_t instance;
    int recordsOut;
};

class Builder {
public:
    explicit Builder(unsigned seed) : lot_(seed) {
        for (int i = 0; i < kMethods; ++i) methods_.push_back(methodName(i));
        for (int i = 0; i < kUrls; ++i) urls_.push_back("/shop/page" + std::to_string(i) + "?item=7|GET");
    }

    Stream build(int transactions) {
        std::vector<Transaction> open;
        for (int started = 0; started < transactions || !open.empty();) {
            while (started < transactions && open.size() < kOpenTransactions)
                open.push_back({kFirstInstance + started++, 0});
            Transaction& next = open[draw(open.size())];
            addRecord(next);
            if (next.recordsOut < kRecordsPerTransaction) continue;
            next = open.back();
            open.pop_back();
        }
        return {std::move(bytes_), std::int64_t{transactions} * kRecordsPerTransaction};
    }

    OpenStream buildOpen(int transactions) {
        std::vector<Transaction> open;
        for (int i = 0; i < transactions; ++i) open.push_back({kFirstInstance + i, 0});
        for (int step = 0; step < kRecordsPerTransaction - 1; ++step)
            for (Transaction& each : open) addRecord(each);
        OpenStream stream{std::exchange(bytes_, {}), {}};
        for (Transaction& each : open) addRecord(each);
        stream.ends = std::move(bytes_);
        return stream;
    }

private:
    std::size_t draw(std::size_t count) { return lot_() % count; }

    std::string methodName(int number) {
        const std::size_t length = kShortestName + draw(kLongestName - kShortestName + 1);
        std::string name = "Shop.Module" + std::to_string(number) + ".";
        while (name.size() < length) name += static_cast<char>('a' + draw(26));
        return name;
    }

    // The record that is due: a start, entries and exits in turn, an end.
    void addRecord(Transaction& transaction) {
        char out[kRecordMax];
        const int step = transaction.recordsOut++;
        std::int64_t length = 0;
        if (step == 0) {
            length = start(out, transaction.instance);
        } else if (step == kRecordsPerTransaction - 1) {
            length = end(out, transaction.instance);
        } else {
            length =
                step % 2 ? entry(out, transaction.instance, step) : exit(out, transaction.instance, step);
        }
        bytes_.append(out, static_cast<std::size_t>(std::max(length, std::int64_t{0})));
    }
    static VXWireText wire(const std::string& text) { return {text.data(), text.size()}; }
    // The same method for an entry and the exit behind it.
    const std::string& methodOf(std::int64_t instance, int step) const {
        const auto mixed = static_cast<std::uint64_t>(instance) * 31 + static_cast<std::uint64_t>(step / 2);
        return methods_[mixed * 2654435761U % kMethods];
    }
    std::int64_t start(char* out, std::int64_t instance) {
        VXTransactionStart record{};
        record.flowpathInstance = instance;
        record.url = wire(urls_[draw(urls_.size())]);
        record.startTime = kStartUs;
        record.threadId = 7;
        return transactionStartEncode(out, kRecordMax, record);
    }
    std::int64_t entry(char* out, std::int64_t instance, int step) const {
        VXMethodEntryRecord record{};
        record.flowpathInstance = instance;
        record.methodName = wire(methodOf(instance, step - 1));
        record.threadId = 7;
        record.time = kStartUs + step * kPairUs;
        return MethodEntryEncode(out, kRecordMax, record);
    }
    std::int64_t exit(char* out, std::int64_t instance, int step) const {
        VXMethodExitRecord record{};
        record.status = 200;
        record.flowpathInstance = instance;
        record.methodName = wire(methodOf(instance, step - 2));
        record.threadId = 7;
        record.methodWallTime = kPairUs;
        record.endTime = kStartUs + step * kPairUs;
        return MethodExitEncode(out, kRecordMax, record);
    }
    std::int64_t end(char* out, std::int64_t instance) const {
        VXTransactionEnd record{};
        record.status = 200;
        record.flowpathInstance = instance;
        record.endTime = kStartUs + 2 * kPairs * kPairUs;
        return transactionEndEncode(out, kRecordMax, record);
    }

    std::mt19937 lot_;
    std::vector<std::string> methods_, urls_;
    std::string bytes_;
};

}  // namespace

Stream makeStream(int transactions, unsigned seed) {
    return Builder(seed).build(transactions);
}

OpenStream makeOpenStream(int transactions, unsigned seed) {
    return Builder(seed).buildOpen(transactions);
}

}  // namespace vx::bench
