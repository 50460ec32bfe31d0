#include "commonlibc/vxbt/vxbt_rule_parser.h"

#include <algorithm>
#include <cstring>

#include "commonlibc/vxbt/vxbt_automaton.h"
#include "commonlibc/vxbt/vxbt_custom_rule.h"
#include "commonlibc/vxbt/vxbt_global_rule.h"
#include "commonlibc/vxbt/vxbt_pattern_rule.h"
#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr const char* kNotServed = "rules of this type are not served";
constexpr const char* kNoEffect = "lines of this type have no effect";

// One reading of a text.
struct Reading {
    VXRuleBuild build;
    VXRuleLineObserver observer;
    void* argument;
    bool patternSeen, globalSeen;
};

void tell(const Reading& reading, int number, std::int32_t type, const char* text, const char* fault) {
    if (reading.observer) reading.observer({number, type, text, fault}, reading.argument);
}

bool beginsWith(const char* line, const char* prefix) {
    return std::strncmp(line, prefix, std::strlen(prefix)) == 0;
}

std::int32_t valueOf(const char* line) {
    const char* bar = std::strchr(line, '|');
    return vxbt_int(bar ? bar + 1 : nullptr);
}

const char* parse_exclusion_rule(VXRuleBuild&, char*) {
    return kNoEffect;
}

const char* parseSkipCount(VXRuleBuild& build, char* line) {
    build.set->skipCount = valueOf(line);
    return nullptr;
}

const char* parseMaxStates(VXRuleBuild& build, char* line) {
    const std::int32_t value = valueOf(line);
    build.set->maxStates = std::clamp(value, 0, kMaxStatesLimit);
    if (value < 1) return "the value is below 1, the default counts";
    return value > kMaxStatesLimit ? "the value is above 65536, this counts" : nullptr;
}

const char* parseMethodDataBtRule(VXRuleBuild&, char* line) {
    VX_TRACE(1, kBtMon, kWarning, "Method data rules are not served, line ignored: %s", line);
    return kNotServed;
}

const char* parseHttpBodyBtName(VXRuleBuild&, char* line) {
    VX_TRACE(1, kBtMon, kWarning, "HTTP body rules are not served, line ignored: %s", line);
    return kNotServed;
}

// Lines that take effect in the first pass.
struct LineRow {
    std::int32_t type;
    const char* (*parse)(VXRuleBuild& build, char* line);
};
constexpr LineRow kLineRows[] = {
    {kLineCustom, parse_custom_rule},         {kLineExclusion, parse_exclusion_rule},
    {kLineSkipCount, parseSkipCount},         {kLineMaxStates, parseMaxStates},
    {kLineMethodData, parseMethodDataBtRule}, {kLineHttpBody, parseHttpBodyBtName},
};

// Parses a copy of the line, and tells what became of it.
template <class Parse>
void parseLine(Reading& reading, int number, std::int32_t type, const char* text, Parse parse) {
    char line[kRuleLineSize];
    vxlb_copy_text(line, sizeof(line), text);
    tell(reading, number, type, text, parse(reading.build, line));
}

// Everything but pattern and global rules, which are only noted.
void firstPass(Reading& reading, const char* text) {
    eachRuleLine(text, [&reading](int number, const char* line) {
        const std::int32_t type = *line == '#' ? 0 : vxbt_int(line);
        if (beginsWith(line, "7|")) {
            reading.patternSeen = true;
            return;
        }
        if (beginsWith(line, "1|")) {
            reading.globalSeen = true;
            return;
        }
        const auto* row = std::find_if(std::begin(kLineRows), std::end(kLineRows),
                                       [type](const LineRow& at) { return at.type == type; });
        if (row != std::end(kLineRows)) {
            parseLine(reading, number, type, line, row->parse);
        } else if (*line) {
            tell(reading, number, type, line, *line == '#' ? nullptr : kNoEffect);
        }
    });
}

void patternPass(Reading& reading, const char* text) {
    VX_TRACE(1, kBtMon, kInfo, "Rule 7 found, now parsing it.");
    eachRuleLine(text, [&reading](int number, const char* line) {
        if (reading.build.good() && beginsWith(line, "7|"))
            parseLine(reading, number, kLinePattern, line, parse_pattern_rule);
    });
}

// The first line counts, and only where no pattern line does.
void globalPass(Reading& reading, const char* text) {
    VXRuleBuild& build = reading.build;
    if (build.patternLines == 0)
        VX_TRACE(1, kBtMon, kInfo, "Rule 7 and rule 9 was not found, but rule 1 found, now parsing it.");
    eachRuleLine(text, [&reading, &build](int number, const char* line) {
        if (!build.good() || !beginsWith(line, "1|")) return;
        if (build.patternLines > 0 || build.globalLines > 0) {
            tell(reading, number, kLineGlobal, line,
                 build.patternLines > 0 ? "pattern rules go before the global rule"
                                        : "the first global rule counts");
            return;
        }
        ++build.globalLines;
        parseLine(reading, number, kLineGlobal, line,
                  [](VXRuleBuild& into, char* rule) { return parse_global_rule(into, rule); });
    });
}

void buildAutomaton(VXRuleBuild& build) {
    if (build.customLines == 0 || build.patternLines > 0) return;
    build.dropCustomMachine();
    if (vxlb_init_automaton(&build.set->customMachine, &build.set->customRule) < 0) build.fail();
}

}  // namespace

int vxbt_read_rule_file(const char* pathOrText, VXRuleSource source, VXRuleBuild::Base base,
                        VXRuleLineObserver observer, void* argument) {
    if (!pathOrText) return 0;
    const VXRuleText text(pathOrText, source);
    if (!text.get()) return 0;
    Reading reading{VXRuleBuild(base), observer, argument, false, false};
    VXRuleBuild& build = reading.build;
    if (build.good()) firstPass(reading, text.get());
    if (build.good() && reading.patternSeen) patternPass(reading, text.get());
    if (build.good() && reading.globalSeen) globalPass(reading, text.get());
    if (build.good()) buildAutomaton(build);
    build.applicable = build.patternLines > 0 ? kPatternRule : build.globalLines > 0 ? kGlobalRule : kNoRule;
    if (!build.commit()) return 0;
    VX_TRACE(1, kBtMon, kInfo, "After btrule file parsing, applicable bt rule = %d.", build.applicable);
    return 0;
}

}  // namespace vx
