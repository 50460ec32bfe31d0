#include "commonlibc/vxbt/vxbt_pattern_rule.h"

#include <cstdio>
#include <cstring>

#include "commonlibc/vxbt/vxbt_bt_object.h"
#include "commonlibc/vxbt/vxbt_state_machine.h"
#include "commonlibc/vxbt/vxbt_tags.h"
#include "commonlibc/vxbt/vxbt_utils.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr int kMaxFields = 64, kMinFields = 6;
constexpr int kFieldsOfMode = 8, kFieldsOfMethod = 9, kFieldsOfHeader = 10;
enum Field {
    kName = 1,
    kId,
    kMatch,
    kPattern,
    kExclude,
    kMode,
    kQuery,
    kMethod,
    kHeader,
    kSelfId = 12,
    kParentId,
};
constexpr std::int32_t kModeUrl = 0, kModeQuery = 1, kModeMethod = 2, kModeBoth = 3;
constexpr const char* kNone = "-";

std::int32_t matchTypeOf(const char* text) {
    return static_cast<std::uint8_t>(vxbt_int(text)) == 1 ? 1 : 0;
}

std::int32_t modeOf(char* const* fields, int count) {
    if (count < kFieldsOfMode) return kModeUrl;
    const std::int32_t mode = vxbt_int(fields[kMode]);
    return mode < kModeUrl || mode > kModeBoth ? kModeUrl : mode;
}

std::int32_t linkOf(char* const* fields, int count, int index) {
    return count <= index || std::strcmp(fields[index], kNone) == 0 ? -1 : vxbt_int(fields[index]);
}

const char* headerOf(char* const* fields, int count) {
    if (count < kFieldsOfHeader) return "";
    const char* text = fields[kHeader];
    return std::strcmp(text, kNone) == 0 || std::strcmp(text, "NA") == 0 ? "" : text;
}

// What the machine gets: behind the URL a "*", and behind it the query.
void makePattern(VXPatternLine& line) {
    VXWriter out(line.pattern, sizeof(line.pattern));
    out.text(line.url);
    if (line.mode != kModeUrl) out.put('*');
    if (line.mode == kModeQuery || line.mode == kModeBoth) out.text(line.query).put('*');
    out.terminate();
}

bool machineTakes(const char* text) {
    for (; *text; ++text)
        if (!vxlb_state_machine_takes(*text)) return false;
    return true;
}

// The first accepted line begins the machines anew.
bool beginMachines(VXRuleBuild& build, bool withHeaders) {
    const std::int32_t maxStates = build.set->maxStates > 0 ? build.set->maxStates : kDefaultMaxStates;
    build.dropUrlMachine();
    build.dropHeaderMachine();
    if (vxlb_state_machine_init(&build.set->urlMachine, maxStates) != 0) return false;
    if (withHeaders && vxlb_state_machine_init(&build.set->headerMachine, maxStates) != 0) return false;
    VX_TRACE(1, kBtMon, kInfo, "State machine initialized with maxStates '%d'", maxStates);
    return build.declare(kOthersName, kBtIdOthers, -1, -1);
}

bool canMatch(const VXPatternLine& line) {
    const bool methodMissing = line.mode > kModeQuery && !*line.method;
    return *line.pattern && !methodMissing && machineTakes(line.pattern) && machineTakes(line.method);
}

// Adds the patterns of a line. Null, or what of it can never match; no memory fails the build.
const char* addPatterns(VXRuleBuild& build, const VXPatternLine& line) {
    const char* fault = nullptr;
    if (vxlb_state_machine_add(&build.set->urlMachine, line.pattern, std::strlen(line.pattern), line.method,
                               std::strlen(line.method), line.id, line.matchType, line.mode) != 0) {
        if (canMatch(line)) build.fail();
        fault = "pattern or method is empty or has a character that no request has, it never matches";
    }
    if (!*line.header) return fault;
    if (line.id <= kBtIdOthers)
        return fault ? fault : "the header has no effect, only rules with an id from 2 on ask for one";
    if (!vxlb_state_machine_usable(&build.set->headerMachine))
        return "the header has no effect, the first pattern line has none";
    if (vxlb_state_machine_add_header(&build.set->headerMachine, line.header, std::strlen(line.header),
                                      line.id, line.matchType) != 0) {
        if (machineTakes(line.header)) build.fail();
        fault = "the header has a character that no request has, it never matches";
    }
    return fault;
}

// Tags of a line replace those that its id had.
void takeTags(VXRuleBuild& build, std::int32_t id, char* text) {
    if (id < 1) return;
    VXBTTags& tags = build.set->tags;
    bool taken = clearTagsOfBt(tags, build.tagsInForce(), id);
    if (taken && std::strcmp(text, kNone) != 0) taken = parse_tags(tags, build.tagsInForce(), text, id);
    if (!taken) build.fail();
}

}  // namespace

const char* vxSplitPatternLine(char* line, VXPatternLine& pattern, char*& tags) {
    char* fields[kMaxFields];
    const int count = vxlb_split_keep_empty(line, fields, "|", kMaxFields);
    if (count < kMinFields) {
        VX_TRACE(1, kControlThread, kWarning,
                 "Number of fields in BTRule File for pattern based is  < 6, hence BTname = others");
        return "fewer than 6 fields";
    }
    const std::int32_t id = vxbt_int(fields[kId]);
    if (id > kMaxRuleId) {
        VX_TRACE(1, kControlThread, kWarning, "Id %d of pattern rule '%s' is above %d, line is refused", id,
                 fields[kName], kMaxRuleId);
        return "the id is above 65535";
    }
    vxlb_copy_text(pattern.name, sizeof(pattern.name), fields[kName]);
    pattern.matchType = matchTypeOf(fields[kMatch]);
    pattern.excludeMode = vxbt_int(fields[kExclude]);
    pattern.id = pattern.excludeMode ? kBtIdExcluded : id;
    pattern.mode = modeOf(fields, count);
    const bool asksMethod = pattern.mode == kModeMethod || pattern.mode == kModeBoth;
    if (asksMethod && count < kFieldsOfMethod) {
        VX_TRACE(1, kBtMon, kWarning, "num_fields = %d is equal to 8 but less than 9", count);
        return "fewer than 9 fields, and the mode asks for a method";
    }
    pattern.url = fields[kPattern];
    pattern.query = pattern.mode == kModeQuery || pattern.mode == kModeBoth ? fields[kQuery] : "";
    makePattern(pattern);
    pattern.method = asksMethod ? fields[kMethod] : "";
    pattern.header = headerOf(fields, count);
    pattern.selfId = linkOf(fields, count, kSelfId);
    pattern.parentId = linkOf(fields, count, kParentId);
    tags = fields[count - 1];
    VX_TRACE(2, kBtMon, kInfo,
             "num_fields = %d, transactionName = %s, excludeMode = %d, transactionId = %d, matchType = %d, "
             "pattern = %s",
             count, pattern.name, pattern.excludeMode, pattern.id, pattern.matchType, fields[kPattern]);
    return nullptr;
}

const char* parse_pattern_rule(VXRuleBuild& build, char* line) {
    VXPatternLine pattern;
    char* tags = nullptr;
    if (const char* fault = vxSplitPatternLine(line, pattern, tags)) return fault;
    if (build.patternLines == 0 && !beginMachines(build, *pattern.header)) {
        build.fail();
        return nullptr;
    }
    if (pattern.id >= 0 && !build.declare(pattern.name, pattern.id, pattern.selfId, pattern.parentId)) {
        VX_TRACE(1, kControlThread, kWarning, "No room for BT '%s' of a rule, line is refused", pattern.name);
        return "too many BTs were declared";
    }
    ++build.patternLines;
    VX_TRACE(2, kBtMon, kInfo,
             "Adding BT to state machine. Pattern = %s, transactionId = '%d', matchType = %d, skipCount = %d",
             pattern.pattern, pattern.id, pattern.matchType, build.set->skipCount);
    const char* fault = addPatterns(build, pattern);
    if (fault) VX_TRACE(1, kBtMon, kWarning, "Pattern rule of '%s': %s", pattern.name, fault);
    takeTags(build, pattern.id, tags);  // behind the patterns: it takes the text apart
    return fault;
}

}  // namespace vx
