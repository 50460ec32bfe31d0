#include "commonlibc/vxbt/vxbt_rule_check.h"

#include <apr_general.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "commonlibc/VXSettingReport.h"
#include "commonlibc/vxbt/vxbt_rule_execute.h"
#include "commonlibc/vxbt/vxbt_rule_reading.h"
#include "commonlibc/vxbt/vxbt_rule_text.h"
#include "commonlibc/vxlb_mem.h"

namespace vx {

namespace {

std::string placeText(int number) {
    char text[16];
    std::snprintf(text, sizeof(text), "%6d  ", number);
    return text;
}

std::string lineReport(const VXReadLine& line) {
    if (line.type == 0 && line.fault.empty()) return placeText(line.number) + "comment\n";
    std::string out = placeText(line.number) + vxRuleKindWords(line.type);
    if (!line.meaning.empty()) out += ": " + line.meaning;
    if (!line.fault.empty()) out += "\n        ! " + line.fault + ": '" + vxPrintable(line.text) + "'";
    return out + "\n";
}

std::string warningsReport(const VXRuleReading& reading) {
    if (reading.warnings().empty()) return "";
    std::string out = "\nWarnings:\n";
    for (const VXRuleWarning& warning : reading.warnings())
        out += "  line " + std::to_string(warning.line) + ": " + vxPrintable(warning.text) + "\n";
    return out;
}

std::string requestReport(VXRuleReading& reading, const VXCheckedRequest& given) {
    if (!given.url) return "";
    const VXUrlParts parts = vxSplitUrl(given.url);
    const VXRuleRequest request{std::string(parts.path), given.query ? given.query : std::string(parts.query),
                                given.method ? given.method : std::string(parts.method)};
    const VXRuleReading::Answer answer = reading.classify(request, given.header);
    std::string out = "\nRequest: " + (request.method.empty() ? "" : request.method + " ") + request.url +
                      (request.query.empty() ? "" : "?" + request.query) +
                      (given.header ? std::string(" [") + given.header + "]" : "") + "\n";
    out += answer.bt.empty() ? "BT: none (excluded"
                             : "BT: \"" + vxPrintable(answer.bt) + "\" (id " + std::to_string(answer.id);
    const int line = reading.lineOf(request);
    return out + (line > 0 ? ", line " + std::to_string(line) : "") + ")\n";
}

// False when it cannot be read, is no file, or is too long.
bool readText(const char* file, std::string& out) {
    char* text = nullptr;
    if (getLineFromFile(file, &text) != 0) return false;
    out = text;
    VXLB_FREE(text, "rule text", -1);
    return true;
}

// The library of pools, for as long as a check lasts.
struct Ground {
    Ground() { apr_initialize(); }
    ~Ground() { apr_terminate(); }
    Ground(const Ground&) = delete;
    Ground& operator=(const Ground&) = delete;
};

struct ArgumentRow {
    const char* name;
    const char* VXCheckedRequest::*member;
};
constexpr ArgumentRow kArguments[] = {{"--url", &VXCheckedRequest::url},
                                      {"--method", &VXCheckedRequest::method},
                                      {"--query", &VXCheckedRequest::query},
                                      {"--header", &VXCheckedRequest::header}};

// What is wrong with the arguments behind the file; empty: nothing.
std::string takeArguments(int count, char** arguments, VXCheckedRequest& request) {
    for (int i = 1; i < count; i += 2) {
        const auto* row =
            std::find_if(std::begin(kArguments), std::end(kArguments),
                         [&](const ArgumentRow& at) { return std::strcmp(at.name, arguments[i]) == 0; });
        if (row == std::end(kArguments)) return std::string("unknown option '") + arguments[i] + "'";
        if (i + 1 >= count) return std::string("no value behind '") + arguments[i] + "'";
        request.*row->member = arguments[i + 1];
    }
    const bool asks = request.method || request.query || request.header;
    return asks && !request.url ? "--method, --query and --header need --url" : "";
}

}  // namespace

int vxCheckRules(const char* file, const VXCheckedRequest& request, std::string* report) {
    const Ground ground;
    VXRuleReading reading;
    std::string text;
    if (!reading.good()) {
        *report = "out of memory\n";
        return kRulesAtFault;
    }
    if (!readText(file, text) || !reading.read(text)) {
        *report = vxPrintable(file) + ": cannot be read, is no file, or is longer than 1 MB\n";
        return kRulesAtFault;
    }
    *report = vxPrintable(file) + "\n\n";
    for (const VXReadLine& line : reading.lines()) *report += lineReport(line);
    *report +=
        "\n" + reading.decidingWords() + "\n" + warningsReport(reading) + requestReport(reading, request);
    const bool inOrder = reading.faults() == 0 && reading.warnings().empty();
    *report += inOrder ? "\nEvery line has an effect.\n"
                       : "\n" + std::to_string(reading.faults()) +
                             " line(s) without effect, or not all of it (!), " +
                             std::to_string(reading.warnings().size()) + " warning(s).\n";
    return inOrder ? kRulesInOrder : kRulesAtFault;
}

int vxCheckRulesCommand(const char* program, int count, char** arguments) {
    VXCheckedRequest request{};
    const std::string fault =
        count < 1 ? "--check-rules needs a file" : takeArguments(count, arguments, request);
    if (!fault.empty()) {
        std::fprintf(stderr, "%s: %s (--help tells the options)\n", program, fault.c_str());
        return kRulesAtFault;
    }
    std::string report;
    const int code = vxCheckRules(arguments[0], request, &report);
    std::fputs(report.c_str(), stdout);
    return code;
}

}  // namespace vx
