#include "tools/agent/cli_callouts.h"

#include <algorithm>
#include <charconv>

namespace vx::agent {
namespace {

constexpr unsigned kWeightMax = 1000;

// "db=4"
bool readWeight(std::string_view text, CalloutMix& mix) {
    const std::size_t at = text.find('=');
    if (at == std::string_view::npos) return false;
    const auto kind = std::find_if(kCalloutKinds.begin(), kCalloutKinds.end(),
                                   [&](const CalloutKind& row) { return row.name == text.substr(0, at); });
    if (kind == kCalloutKinds.end()) return false;
    unsigned weight = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data() + at + 1, end, weight);
    if (error != std::errc() || stopped != end || weight > kWeightMax) return false;
    mix[static_cast<std::size_t>(kind - kCalloutKinds.begin())] = weight;
    return true;
}

}  // namespace

bool readMix(std::string_view text, CalloutMix& mix) {
    CalloutMix read{};
    for (bool more = true; more;) {
        const std::size_t comma = text.find(',');
        more = comma != std::string_view::npos;
        if (!readWeight(text.substr(0, comma), read)) return false;
        if (more) text.remove_prefix(comma + 1);
    }
    if (std::all_of(read.begin(), read.end(), [](unsigned weight) { return weight == 0; })) return false;
    mix = read;
    return true;
}

std::string entryPointText() {
    std::string out = "# module|signature|callout|flag\n";
    for (const CalloutKind& kind : kCalloutKinds)
        out.append("example|").append(kind.method).append("()|").append(kind.entryPoint).append("|2\n");
    return out;
}

}  // namespace vx::agent
