#include "commonlibc/VXInstrProfile.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "commonlibc/ServerReply.h"
#include "commonlibc/VXFileBasedKeywords.h"
#include "commonlibc/VXFileCache.h"
#include "commonlibc/VXFileFetch.h"
#include "commonlibc/VXKeywordNumber.h"
#include "commonlibc/VXParsingFiles.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

constexpr int kNameIndex = 55, kLmdIndex = 56, kSizeIndex = 57;
constexpr const char* kKeyword = "instrProfile";

bool namesNone(const char* value) {
    return std::strcmp(value, "-") == 0 || strcasecmp(value, "NA") == 0;
}

// What is held of a profile of that name; null: nothing.
const VXInstrProfRow_t* heldRow(const VXFileState_t& files, const char* name) {
    for (std::int32_t i = 0; i < files.heldProfileCount; ++i)
        if (std::strcmp(files.heldProfiles[i].name, name) == 0) return files.heldProfiles + i;
    return nullptr;
}

// Adds a profile's content to the text of the line and notes its place. A text that ends within a line gets
// that line's end.
void append(VXInstrProfRow_t& row, const char* content, std::int64_t length) {
    Server_t& server = vxCurrent()->Server;
    const std::int64_t newline = content[length - 1] == '\n' ? 0 : 1;
    const std::int64_t held = server.instrProfBytesWritten;
    if (held + length + newline > kMaxFileSize) {
        addStartWarning("Instrumentation profile '", row.name, "' is left out, all of them are too large");
        return;
    }
    const auto size = static_cast<std::size_t>(held + length + newline + 1);
    auto* text = static_cast<char*>(VXLB_REALLOC(server.instrProfFileData, size, "file content", kNameIndex));
    if (!text) return;
    std::memcpy(text + held, content, static_cast<std::size_t>(length));
    if (newline) text[held + length] = '\n';
    text[size - 1] = '\0';
    server.instrProfFileData = text;
    server.instrProfBytesWritten = held + length + newline;
    row.at = held;
    row.length = length + newline;
    dumpDataInFile(vxBaseName(row.name), content, static_cast<std::size_t>(length));
}

void appendHeld(const VXFileState_t& files, VXInstrProfRow_t& row, const VXInstrProfRow_t& held) {
    row.size = held.size;
    row.lmd = held.lmd;
    if (held.length > 0) append(row, files.kywdInfo[kNameIndex].content + held.at, held.length);
}

// Fetches one profile into its row and the text of the line. False when it did not come.
bool getInstProfileFile(VXInstrProfRow_t& row) {
    const VXFetchedFile file = vxFetchProfile(row.name);
    if (!file.content) return false;
    row.size = file.size;
    row.lmd = file.lmd;
    append(row, file.content.get(), file.size);
    return true;
}

bool fetchProfile(VXInstrProfRow_t& row) {
    if (row.size < 1 || row.size > kMaxFileSize) {
        VX_TRACE(1, kControlThread, kWarning, "Instrumentation profile '%s' with size %lld is not asked for",
                 row.name, static_cast<long long>(row.size));
        return false;
    }
    const bool came = getInstProfileFile(row);
    if (!came) noteFailedFetch(kKeyword);
    return came;
}

// One row whose three fields have arrived.
void handleInstrProfileKeyword(VXFileState_t& files, VXInstrProfRow_t& row) {
    const VXInstrProfRow_t* held = heldRow(files, row.name);
    if (held && held->size == row.size && held->lmd == row.lmd) {
        VX_TRACE(1, kControlThread, kInfo,
                 "file based keyword info (%s) did match with previous info, returning", row.name);
        appendHeld(files, row, *held);
    } else if (fetchProfile(row)) {
        files.profilesChanged = 1;
    } else if (held) {
        appendHeld(files, row, *held);
    } else {
        row.size = row.lmd = 0;  // asked for again by the next line
    }
}

// True when the line names what is held, in its order.
bool sameProfiles(const VXFileState_t& files) {
    if (files.profilesChanged || files.instrProfRows != files.heldProfileCount) return false;
    for (std::int32_t i = 0; i < files.instrProfRows; ++i)
        if (std::strcmp(files.InstrProfTable[i].name, files.heldProfiles[i].name) != 0) return false;
    return true;
}

// The line's rows and text become what is held.
void keepProfiles(VXFileState_t& files, Server_t& server) {
    kywdInfo_t& entry = files.kywdInfo[kNameIndex];
    VXLB_FREE(std::exchange(entry.content, std::exchange(server.instrProfFileData, nullptr)), "file content",
              kNameIndex);
    entry.size = std::exchange(server.instrProfBytesWritten, 0);
    VXLB_FREE(std::exchange(files.heldProfiles, std::exchange(files.InstrProfTable, nullptr)),
              "InstrProfTable", -1);
    files.heldProfileCount = std::exchange(files.instrProfRows, 0);
}

// All rows of the line have arrived.
void useProfiles(VXFileState_t& files, Server_t& server) {
    kywdInfo_t& entry = files.kywdInfo[kNameIndex];
    const bool same = sameProfiles(files);
    if (!server.instrProfFileData) {
        VX_TRACE(1, kControlThread, kWarning,
                 "Content of file is not present or all instrumentation file is not been parsed yet");
    } else if (!same) {
        keepProfiles(files, server);
        useFileBasedKeyword(entry.content, entry.size, kKeyword, kNameIndex);
    } else {
        useHeldFile(kKeyword, kNameIndex);
    }
    VXLB_FREE(std::exchange(server.instrProfFileData, nullptr), "file content", kNameIndex);
    server.instrProfBytesWritten = 0;
}

void noProfile(Server_t& server) {
    server.noInstrProfile = 1;
    setMethodHashMapNode(nullptr);
    forgetFileInForce(kNameIndex);
}

// The row that the next field belongs to; null when the line has no room for it.
VXInstrProfRow_t* presentRow(VXFileState_t& files) {
    if (!files.InstrProfTable || files.instrProfCounter >= files.instrProfRows) return nullptr;
    return files.InstrProfTable + files.instrProfCounter;
}

void takeName(VXFileState_t& files, Server_t& server, const char* name) {
    if (namesNone(name)) {
        noProfile(server);
        return;
    }
    server.noInstrProfile = 0;
    if (server.runtimeChange) {
        server.isModifiedInstrProf = 1;
        if (vx_word_get(server.numInstrProfile) == 0) vx_word_set(server.numInstrProfile, 1);
    }
    VXInstrProfRow_t* row = init_instrprof_table() ? presentRow(files) : nullptr;
    if (!row) {
        VX_TRACE(1, kControlThread, kWarning, "No place for instrumentation profile '%s', count is %d", name,
                 vx_word_get(server.numInstrProfile));
        return;
    }
    vxlb_copy_text(row->name, sizeof(row->name), name);
    row->keywordIndex = kNameIndex;
    row->nameGiven = 1;
}

void takeNumber(VXFileState_t& files, int index, const char* value) {
    VXInstrProfRow_t* row = init_instrprof_table() ? presentRow(files) : nullptr;
    if (!row) return;
    (index == kLmdIndex ? row->lmd : row->size) = keywordLong(value);
    (index == kLmdIndex ? row->lmdGiven : row->sizeGiven) = 1;
}

void handleWholeRow(VXFileState_t& files, Server_t& server) {
    VXInstrProfRow_t* row = presentRow(files);
    if (!row || !row->nameGiven || !row->lmdGiven || !row->sizeGiven) return;
    handleInstrProfileKeyword(files, *row);
    if (++files.instrProfCounter == files.instrProfRows) useProfiles(files, server);
}

}  // namespace

void setInstProfile(char* value, const char* keyword, int index) {
    vxApplication& app = *vxCurrent();
    if (!value || !keyword) return;
    if (index == kNameIndex) {
        takeName(app.files, app.Server, value);
    } else if (!app.Server.noInstrProfile && (index == kLmdIndex || index == kSizeIndex)) {
        takeNumber(app.files, index, value);
    }
    handleWholeRow(app.files, app.Server);
}

bool init_instrprof_table() {
    vxApplication& app = *vxCurrent();
    VXFileState_t& files = app.files;
    if (files.InstrProfTable) return true;
    const std::int32_t count = std::min(vx_word_get(app.Server.numInstrProfile), kMaxInstrProfiles);
    if (count < 1 || files.instrProfCounter > 0) return false;  // all of the line have arrived
    files.InstrProfTable = static_cast<VXInstrProfRow_t*>(VXLB_MALLOC_AND_MEMSET(
        sizeof(VXInstrProfRow_t) * static_cast<std::size_t>(count), "InstrProfTable", -1));
    files.instrProfRows = files.InstrProfTable ? count : 0;
    return files.InstrProfTable != nullptr;
}

void makeInstrProfTableFree() {
    vxApplication& app = *vxCurrent();
    VXFileState_t& files = app.files;
    if (files.InstrProfTable && files.instrProfCounter < files.instrProfRows)
        VX_TRACE(1, kControlThread, kWarning,
                 "Content of file is not present or all instrumentation file is not been parsed yet");
    VXLB_FREE(std::exchange(files.InstrProfTable, nullptr), "InstrProfTable", -1);
    VXLB_FREE(std::exchange(app.Server.instrProfFileData, nullptr), "file content", kNameIndex);
    app.Server.instrProfBytesWritten = 0;
    app.Server.noInstrProfile = 0;
    files.instrProfRows = files.instrProfCounter = 0;
    files.profilesChanged = 0;
}

}  // namespace vx
