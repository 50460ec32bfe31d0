#include "tools/collector/collector_details.h"

#include <algorithm>

namespace vx::collector {

namespace {

const char* categoryText(int category) {
    switch (category) {
        case 10:
            return "normal";
        case 11:
            return "slow";
        case 12:
            return "very slow";
        case 13:
            return "error";
        default:
            return "other";
    }
}

void printHead(std::int64_t number, const KeptTransaction& kept, std::FILE* out) {
    std::fprintf(out, "%lld %s %s", static_cast<long long>(number), kept.bt.empty() ? "-" : kept.bt.c_str(),
                 kept.url.empty() ? "-" : kept.url.c_str());
    if (!kept.ended) {
        std::fputs(" has not ended", out);
        return;
    }
    std::fprintf(out, " status %d, %s, %lld ms", kept.status, categoryText(kept.category),
                 static_cast<long long>(kept.durationMs));
}

void printTexts(const char* title, const std::vector<std::string>& texts, std::FILE* out) {
    if (texts.empty()) return;
    std::fprintf(out, "  %s\n", title);
    for (const std::string& text : texts) std::fprintf(out, "    %s\n", text.c_str());
}

// The lines of a stack, each behind `indent`.
void printStack(const std::string& stack, const char* indent, std::FILE* out) {
    for (std::size_t at = 0; at < stack.size();) {
        const std::size_t end = std::min(stack.find('\n', at), stack.size());
        std::fprintf(out, "%s%s\n", indent, stack.substr(at, end - at).c_str());
        at = end + 1;
    }
}

}  // namespace

KeptTransaction& KeptTransactions::of(std::int64_t number) {
    const auto [at, made] = kept_.try_emplace(number);
    if (made) {
        numbers_.push_back(number);
        if (numbers_.size() > kKeptTransactions) {
            kept_.erase(numbers_.front());
            numbers_.pop_front();
        }
    }
    return at->second;  // an erased neighbour leaves it where it is
}

KeptTransaction* KeptTransactions::find(std::int64_t number) {
    const auto found = kept_.find(number);
    return found == kept_.end() ? nullptr : &found->second;
}
const KeptTransaction* KeptTransactions::find(std::int64_t number) const {
    const auto found = kept_.find(number);
    return found == kept_.end() ? nullptr : &found->second;
}

void printKept(const KeptTransactions& kept, std::FILE* out, std::size_t most) {
    const auto& numbers = kept.numbers();
    for (std::size_t i = numbers.size() - std::min(numbers.size(), most); i < numbers.size(); ++i) {
        const KeptTransaction& one = *kept.find(numbers[i]);
        printHead(numbers[i], one, out);
        std::fprintf(out, "; %zu exceptions, %zu headers\n", one.exceptions.size(),
                     one.request.size() + one.response.size());
    }
    std::fprintf(out, "%zu transactions with headers or exceptions\n", numbers.size());
    std::fflush(out);
}

bool printTransaction(const KeptTransactions& kept, std::int64_t number, std::FILE* out) {
    const KeptTransaction* one = kept.find(number);
    if (!one) return false;
    std::fputs("transaction ", out);
    printHead(number, *one, out);
    std::fputc('\n', out);
    printTexts("request", one->request, out);
    printTexts("response", one->response, out);
    for (const KeptException& thrown : one->exceptions) {
        std::fprintf(out, "  %s %s\n", thrown.name.c_str(), thrown.text.c_str());
        printStack(thrown.stack, "    ", out);
    }
    std::fflush(out);
    return true;
}

}  // namespace vx::collector
