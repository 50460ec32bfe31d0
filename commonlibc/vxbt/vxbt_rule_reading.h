// A rule text read aside: what its lines mean, and what becomes of requests under it.
//
// The text is read by the service's own parsers into a context made for it, and requests are classified
// there; so a reading can neither accept nor refuse what a service would not.
//
//     read(text)     the first one as a start takes it, others as a running instance takes a change
//     classify       which BT a request gets, by the look-up of the service
//
// Limits    Texts of at most kMaxRuleText bytes; BTs of an instance as in the service.
// Lifetime  Everything is given back with the reading.
// Threads   One at a time. The thread's current context is put back behind every call. The process has called
//           apr_initialize().
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxbt/vxbt_rule_reach.h"

namespace vx {

// Which rules name the BTs.
enum class VXRulesDeciding : std::uint8_t { kPatterns, kCustoms, kGlobal, kDefault };

struct VXReadLine {
    int number;         // from 1; empty lines have none
    std::int32_t type;  // as in vxbt_rule_parser
    std::string text, fault;
    std::string meaning;  // in words; empty: none
};

class VXRuleReading {
public:
    VXRuleReading();
    ~VXRuleReading();
    VXRuleReading(const VXRuleReading&) = delete;
    VXRuleReading& operator=(const VXRuleReading&) = delete;

    // False: out of memory, nothing else may be called.
    bool good() const noexcept { return ready_; }
    // False when the text is too long: nothing changed.
    bool read(const std::string& text);

    // Of the last text, in its order.
    const std::vector<VXReadLine>& lines() const noexcept { return lines_; }
    // Of lines without a fault.
    const std::vector<VXRuleWarning>& warnings() const noexcept { return warnings_; }
    VXRulesDeciding deciding() const noexcept { return deciding_; }
    // One sentence on what decides.
    std::string decidingWords() const;
    std::size_t faults() const;

    struct Answer {
        std::string bt;  // empty: excluded
        std::int32_t id = kBtIdExcluded;
    };
    // `header` may be null.
    Answer classify(const VXRuleRequest& request, const char* header);
    // The line of the last text that takes a request, whatever its headers; 0: none.
    int lineOf(const VXRuleRequest& request) const;
    // The custom rules that a line makes when it stands alone; null: none. The place is the caller's.
    bool customsOf(const VXReadLine& line, VXBTCustomeRule& alone) const;

private:
    std::string meaningOf(const VXReadLine& line);
    void notePassedOver();
    void takeWarnings();

    vxApplication* app_;
    bool ready_ = false, hasText_ = false;
    std::vector<VXReadLine> lines_;
    std::vector<VXRuleWarning> warnings_;
    std::unique_ptr<VXPatternReach> patterns_;
    std::unique_ptr<VXCustomReach> customs_;
    VXRulesDeciding deciding_ = VXRulesDeciding::kDefault;
    int globalLine_ = 0;
};

const char* vxRuleKindWords(std::int32_t type);

}  // namespace vx
