#include "commonlibc/ServerModify.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "commonlibc/ServerReply.h"
#include "commonlibc/VXAgentLine.h"
#include "commonlibc/VXInstrProfile.h"
#include "commonlibc/VXKeywordPass.h"
#include "commonlibc/VXMethodManager.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr const char* kAction = "action=modify;";
constexpr const char* kSessionKey = "enableAutoInstrSession";
constexpr int kMaxFields = 1024;
constexpr std::string_view kBlockKey = "numInstrProfile";
constexpr std::string_view kBlockMembers[] = {"instrProfile", "lmd", "size"};
constexpr int kNone = -1;
constexpr std::size_t kMergedSize = kControlBufSize;  // no longer than a line that a collector can send

std::string_view keyOf(const char* field) {
    const char* equals = std::strchr(field, '=');
    return equals ? std::string_view(field, static_cast<std::size_t>(equals - field)) : std::string_view();
}

bool isBlockMember(std::string_view key) {
    return std::find(std::begin(kBlockMembers), std::end(kBlockMembers), key) != std::end(kBlockMembers);
}

// A line taken apart: a copy of its own, its fields, and the profile block among them.
class FieldList {
public:
    explicit FieldList(const char* text) : copy_(vxlb_strdup(text)) {
        if (copy_) count_ = vxlb_get_tokens_with_multi_delimiter(copy_.get(), fields_, ";", kMaxFields);
        for (int i = 0; i < count_ && blockBegin_ == kNone; ++i)
            if (keyOf(fields_[i]) == kBlockKey) blockBegin_ = i;
        if (blockBegin_ == kNone) return;
        blockEnd_ = blockBegin_ + 1;
        while (blockEnd_ < count_ && isBlockMember(keyOf(fields_[blockEnd_]))) ++blockEnd_;
    }

    bool whole() const { return copy_ != nullptr; }
    int count() const { return count_; }
    const char* at(int index) const { return fields_[index]; }
    bool hasBlock() const { return blockBegin_ != kNone; }
    int blockBegin() const { return blockBegin_; }
    int blockEnd() const { return blockEnd_; }
    bool inBlock(int index) const { return index >= blockBegin_ && index < blockEnd_; }
    // The last field of that key outside the block.
    int find(std::string_view key) const {
        if (key.empty()) return kNone;
        for (int i = count_ - 1; i >= 0; --i)
            if (!inBlock(i) && keyOf(fields_[i]) == key) return i;
        return kNone;
    }

private:
    struct Free {
        void operator()(char* text) const noexcept { VXLB_FREE(text, "text copy", -1); }
    };
    std::unique_ptr<char, Free> copy_;
    char* fields_[kMaxFields] = {};
    int count_ = 0;
    int blockBegin_ = kNone, blockEnd_ = kNone;
};

void writeField(VXWriter& out, const char* field) {
    out.text(field).put(';');
}

void writeBlock(VXWriter& out, const FieldList& list) {
    for (int i = list.blockBegin(); i < list.blockEnd(); ++i) writeField(out, list.at(i));
}

// The stored fields in their order, each with the change's value where it has one; then what is new.
void writeMerged(VXWriter& out, const FieldList& stored, const FieldList& change) {
    const FieldList& block = change.hasBlock() ? change : stored;
    for (int i = 0; i < stored.count(); ++i) {
        if (i == stored.blockBegin()) writeBlock(out, block);
        if (stored.inBlock(i)) continue;
        const int changed = change.find(keyOf(stored.at(i)));
        writeField(out, changed == kNone ? stored.at(i) : change.at(changed));
    }
    if (change.hasBlock() && !stored.hasBlock()) writeBlock(out, change);
    for (int i = 0; i < change.count(); ++i) {
        const std::string_view key = keyOf(change.at(i));
        const bool isNew = !change.inBlock(i) && change.find(key) == i && stored.find(key) == kNone;
        if (isNew) writeField(out, change.at(i));
    }
}

void store(vxApplication& app, char* line) {
    const VXGuard lock(app.identity.messageMutex);
    VXLB_FREE(std::exchange(app.identity.startInstrumentation, line), "start line", -1);
}

void applyChange(vxApplication& app, const char* line) {
    Server_t& server = app.Server;
    server.runtimeChange = 1;
    server.isRuntimeApplied = 1;
    server.rehashRequested = 0;
    findStatusFromClientMsg(line);
    if (server.rehashRequested) {
        hashMapForAgent();
        server.rehashRequested = 0;
    }
    sendResponseRunTimeChange();
    server.changeApplied = 1;
    server.runtimeChange = 0;
}

}  // namespace

void handleModify(char* line) {
    vxApplication& app = *vxCurrent();
    app.Server.fileUpdatedAtRuntime = 0;
    const char* action = std::strstr(line, kAction);
    if (action && !std::strstr(line, kSessionKey)) update_instrument_profile(action);
    VX_TRACE(1, kControlThread, kInfo, "Proxy sending AI message to agent");
    vxRelayToAll(line);
    makeInstrProfTableFree();
    if (!app.Server.instrumentationStarted) {
        sendModifyRefused();
        return;
    }
    applyChange(app, line);
}

void update_instrument_profile(const char* text) {
    vxApplication& app = *vxCurrent();
    const char* former = app.identity.startInstrumentation;  // replaced by this thread alone
    const std::size_t actionLength = std::strlen(kAction);
    if (!former || !text || std::strlen(text) < actionLength) return;

    const FieldList stored(former);
    const FieldList change(text + actionLength);
    if (!stored.whole() || !change.whole()) return;
    auto* line = static_cast<char*>(VXLB_MALLOC(kMergedSize, "start line", -1));
    if (!line) return;
    VXWriter out(line, kMergedSize - 1);
    writeMerged(out, stored, change);
    line[out.length()] = '\0';
    if (out.cut()) {
        VX_TRACE(1, kControlThread, kWarning, "Stored start line has no room for '%s'", text);
        VXLB_FREE(line, "start line", -1);
        return;
    }
    auto* fitted = static_cast<char*>(VXLB_REALLOC(line, out.length() + 1, "start line", -1));
    store(app, fitted ? fitted : line);
}

}  // namespace vx
