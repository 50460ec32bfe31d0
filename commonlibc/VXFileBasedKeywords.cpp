#include "commonlibc/VXFileBasedKeywords.h"

#include <strings.h>

#include <cstring>
#include <iterator>
#include <utility>

#include "commonlibc/ServerErrorRules.h"
#include "commonlibc/ServerReply.h"
#include "commonlibc/VXCriticalFiles.h"
#include "commonlibc/VXFileCache.h"
#include "commonlibc/VXFileFetch.h"
#include "commonlibc/VXFileHead.h"
#include "commonlibc/VXMethodClasses.h"
#include "commonlibc/VXParsingFiles.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/http/VXHttpReqRespCaptureSettings.h"
#include "commonlibc/mm/VXExceptionMonitor.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxbt/vxbt_rule_parser.h"
#include "commonlibc/vxbt/vxbt_thresholds.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utf8.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr const char* kNoFile = "NA";
constexpr int kExceptionMonitorIndex = 6, kMethodMonitorIndex = 7, kEntryPointsIndex = 13, kProfileIndex = 55,
              kCriticalListIndex = 90;
constexpr int kMonitorTexts = 2;  // kind of resetmethodHashMapNode

// Files that only the agents read: they ask for the cached copy.
void keepForAgents(char*) {
    VX_TRACE(2, kControlThread, kInfo, "File stands in the cache folder for the agents");
}

// What becomes of a content; the text is a copy, terminated.
struct ParserRow {
    int index;
    void (*parse)(char* text);
};
constexpr ParserRow kParsers[] = {
    {0, [](char* text) { vxbt_read_rule_file(text, VXRuleSource::kText); }},
    {1, [](char* text) { vxbt_read_threshold_file(text, VXRuleSource::kText); }},
    {2, [](char* text) { parseBtError(text); }},
    {kExceptionMonitorIndex, parseExceptionMonFile},
    {kMethodMonitorIndex, parseMethodMonitor},
    {10, [](char* text) { VX_UPCALL(parseBackendRuleFile, text); }},
    {kEntryPointsIndex, parseEntryFile},
    {kProfileIndex, setMethodHashMapNode},
    {63, setHttpHashMapNode},
    {75, keepForAgents},
    {76, keepForAgents},
    {77, keepForAgents},
    {78, keepForAgents},
    {kCriticalListIndex, setvxCriticalFileList},
    {95, [](char* text) { VX_UPCALL(setblackListForDebugSession, text); }},
    {112, [](char* text) { VX_UPCALL(parseDynamicSettingsFile, text); }},
};

// The texts that describe methods; agents of type 4 get them handed over, too.
bool describesMethods(int index) {
    return index == kMethodMonitorIndex || index == kEntryPointsIndex || index == kProfileIndex;
}

// What agents of type 4 are to receive: the entry keeps name and content.
void handOverToGoAgents(int index) {
    vxCurrent()->files.kywdInfo[index].handedOver = 1;
}

void parseContent(const char* content, std::int64_t size, int index) {
    for (const ParserRow& row : kParsers) {
        if (row.index != index) continue;
        const VXFileText copy = vxMakeFileText(size);
        if (!copy) return;
        std::memcpy(copy.get(), content, static_cast<std::size_t>(size));
        row.parse(copy.get() + vxlb_mark_length(copy.get()));
        return;
    }
}

bool unchanged(const kywdInfo_t& entry, const char* name, std::int64_t size, std::int64_t lmd) {
    return std::strcmp(entry.fileName, name) == 0 && entry.size == size && entry.lmd == lmd;
}

const char* get_file_from_VXC_wrapper(const char* keyword, int index) {
    if (vxCurrent()->control.lws_active)
        VX_TRACE(2, kControlThread, kInfo, "getting file:[%s] via lws", keyword);
    return getFileFromVXC(keyword, index);
}

void noFile(const char* keyword) {
    VX_TRACE(1, kControlThread, kInfo, "Found =NA for keyword '%s', returning ", keyword);
    if (strcasecmp(keyword, "vxExceptionMonFile") == 0) {
        char none[] = "NA";
        parseExceptionMonFile(none);
        forgetFileInForce(kExceptionMonitorIndex);
    }
    if (strcasecmp(keyword, "vxMethodMonFile") != 0) return;
    if (methodHashMapNode_t* node = vxCurrent()->method.methodHashMapNode)
        resetmethodHashMapNode(node, kMonitorTexts);
    forgetFileInForce(kMethodMonitorIndex);
}

// Nothing at all has come for so long that the read loop would have left the connection.
bool collectorIsSilent(const vxApplication& app) {
    return vxlb_steady_ms() - app.control.lastHeartBeatTime >= vx_word_get(app.VXSys.vxcHeartBeatThreshold);
}

// Asks for a file of the line's size. Null when it did not come, with what must follow.
const char* fetchContent(const char* keyword, int index, std::int64_t size) {
    if (size <= kMaxFileSize) {
        if (const char* content = get_file_from_VXC_wrapper(keyword, index)) return content;
    } else {
        addStartWarning("File of keyword '", keyword, "' is larger than 64 MB");
    }
    noteFailedFetch(keyword);
    return nullptr;
}

}  // namespace

void setFileBasedKeywd(char* value, const char* keyword, int index) {
    if (!value || !keyword || index < 0 || index >= kKeywordRows) {
        VX_TRACE(1, kControlThread, kError, "Invalid argument passed, value=[%s], keyword=[%s], index=[%d]",
                 value ? value : "(null)", keyword ? keyword : "(null)", index);
        return;
    }
    handleFileBasedKeyword(value, keyword, index);
}

void handleFileBasedKeyword(const char* value, const char* keyword, int index) {
    kywdInfo_t& entry = vxCurrent()->files.kywdInfo[index];
    if (strcasecmp(value, kNoFile) == 0) {
        noFile(keyword);
        return;
    }
    char name[kFileNameSize];
    std::int64_t size = 0, lmd = 0;
    if (getFileSizeAndLmd(value, name, &size, &lmd) != 0 || !*name) {
        VX_TRACE(1, kControlThread, kWarning, "Value '%s' of keyword '%s' names no file", value, keyword);
        return;
    }
    if (unchanged(entry, name, size, lmd)) {
        VX_TRACE(1, kControlThread, kInfo,
                 "file based keyword info (%s) did match with previous info, returning", name);
        useHeldFile(keyword, index);
        return;
    }
    VX_TRACE(1, kControlThread, kInfo, "going to get file data from vxc");
    const char* content = size < 1 ? nullptr : fetchContent(keyword, index, size);
    if (content) {
        useFileBasedKeyword(content, entry.size, keyword, index);
        vxlb_copy_text(entry.fileName, sizeof(entry.fileName), name);
        return;
    }
    VX_TRACE(1, kControlThread, kWarning, "Content of file is not present");
    if (size >= 1 && vxCurrent()->files.startPass) useHeldFile(keyword, index);
}

const char* getFileFromVXC(const char* keyword, int index) {
    VXFetchedFile file = vxFetchFile(keyword);
    if (!file.content) return nullptr;
    kywdInfo_t& entry = vxCurrent()->files.kywdInfo[index];
    VXLB_FREE(std::exchange(entry.content, file.content.release()), "file content", index);
    entry.size = file.size;
    entry.lmd = file.lmd;
    return entry.content;
}

void useFileBasedKeyword(const char* content, std::int64_t size, const char* keyword, int index) {
    if (index != kProfileIndex) dumpDataInFile(keyword, content, static_cast<std::size_t>(size));
    const vxApplication& app = *vxCurrent();
    if (describesMethods(index) && app.VXBCISetting.agentTypeCode == kAgentGo) handOverToGoAgents(index);
    parseContent(content, size, index);
    vxCurrent()->files.kywdInfo[index].inForce = 1;
    if (describesMethods(index)) vxCurrent()->Server.rehashRequested = 1;
}

void beginFilePass(bool overStartLine) {
    VXFileState_t& files = vxCurrent()->files;
    files.startPass = overStartLine ? 1 : 0;
    files.pendingCount = 0;
    // Only what is set is written: most entries were never touched, nor the memory that they lie in.
    for (kywdInfo_t& entry : files.kywdInfo) {
        if (entry.pending) entry.pending = 0;
        if (overStartLine && entry.inForce) entry.inForce = 0;
    }
}

void useHeldFile(const char* keyword, int index) {
    VXFileState_t& files = vxCurrent()->files;
    kywdInfo_t& entry = files.kywdInfo[index];
    if (!entry.content || entry.inForce || entry.pending) return;
    if (!files.startPass || index == kCriticalListIndex) {  // that list rules the rest of the pass
        useFileBasedKeyword(entry.content, entry.size, keyword, index);
        return;
    }
    vxlb_copy_text(entry.keyword, sizeof(entry.keyword), keyword);
    entry.pending = ++files.pendingCount;  // at most one for each row of the table
}

void useHeldFiles() {
    VXFileState_t& files = vxCurrent()->files;
    for (int place = 1; place <= files.pendingCount; ++place)
        for (int index = 0; index < kKeywordRows; ++index) {
            const kywdInfo_t& entry = files.kywdInfo[index];
            if (entry.pending == place && !entry.inForce)
                useFileBasedKeyword(entry.content, entry.size, entry.keyword, index);
        }
    files.pendingCount = 0;
}

void forgetFileInForce(int index) {
    vxCurrent()->files.kywdInfo[index].inForce = 0;
}

void noteFailedFetch(const char* keyword) {
    vxApplication& app = *vxCurrent();
    const bool critical = isCriticalFile(keyword);
    if (!linkStopAsked(app) && (critical || collectorIsSilent(app))) {
        VX_TRACE(1, kControlThread, kError,
                 "controlBreak %s of keyword '%s' did not come, connection is given up",
                 critical ? "Critical file" : "File", keyword);
        app.control.closeCtrlConFlag = 1;
    }
    if (app.control.closeCtrlConFlag || linkStopAsked(app)) app.keywords.passBlocked = 1;
}

}  // namespace vx
