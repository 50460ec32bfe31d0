// The latest transactions that came with headers or exceptions, each as far as its records told it.
//
// Limits    kKeptTransactions; the oldest gives way. Of each, kKeptHeaders of request and response, and
//           kKeptExceptions with kKeptStack bytes of their stacks.
// Threads   One.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

namespace vx::collector {

inline constexpr std::size_t kKeptTransactions = 2000;
inline constexpr std::size_t kKeptHeaders = 64, kKeptExceptions = 16, kKeptStack = 8192;

struct KeptException {
    std::string name, text;  // the class; where, and with what message
    std::string stack;       // lines, each with its newline
};
struct KeptTransaction {
    std::string bt, url;  // empty: its 2 record has not come
    bool ended = false;
    int status = 0, category = 0;  // once it has ended, and so is the duration
    std::int64_t durationMs = 0;
    std::vector<std::string> request, response;  // "name: value"
    std::vector<KeptException> exceptions;
};

class KeptTransactions {
public:
    // A transaction, made if it is not there.
    KeptTransaction& of(std::int64_t number);
    // Null when it is not there.
    KeptTransaction* find(std::int64_t number);
    const KeptTransaction* find(std::int64_t number) const;
    // Oldest first.
    const std::deque<std::int64_t>& numbers() const { return numbers_; }

private:
    std::unordered_map<std::int64_t, KeptTransaction> kept_;
    std::deque<std::int64_t> numbers_;
};

// One line for each of the latest `most`.
void printKept(const KeptTransactions& kept, std::FILE* out, std::size_t most);
// All that is known of one; false when it is not there.
bool printTransaction(const KeptTransactions& kept, std::int64_t number, std::FILE* out);

}  // namespace vx::collector
