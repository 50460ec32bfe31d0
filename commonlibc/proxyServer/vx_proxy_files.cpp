#include "commonlibc/proxyServer/vx_proxy_files.h"

#include <apr_errno.h>
#include <apr_file_io.h>

#include <cstring>
#include <memory>

#include "commonlibc/VXAgentLine.h"
#include "commonlibc/VXFileCache.h"
#include "commonlibc/proxyServer/vx_proxy_registry.h"
#include "commonlibc/proxyServer/vx_proxy_send.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kHeadRoom = 1024;  // of the answer in front of the content
constexpr std::size_t kNameSize = 512;   // no file system has longer ones
constexpr std::size_t kMaxKeyword = 255;
constexpr std::size_t kFailedSize = 4096;

// The words of the two kinds of answers.
struct AnswerWords {
    const char *head, *size, *date, *failed;
    bool namesFailed;  // the failed answer holds the name, too
};
constexpr AnswerWords kFileWords{"vx_control_rep:action=file;keyword=", "%3Bsize%3D", "%3Blmd%3D",
                                 "vx_control_rep:action=Failed", true};
constexpr AnswerWords kProfileWords{"vx_control_rep:action=instrumentation_profile;instrProfile=", ";size=",
                                    ";lmd=", "vx_control_rep:action=FailedInstrumentationProfile", false};

struct Request {
    const AnswerWords& words;
    const char* name;
    const epollPtr_t& address;
    vxApplication& app;
    processInfo_t& process;
    char path[kCachePathSize];
};

struct BlockFree {
    void operator()(char* block) const noexcept { VXLB_FREE(block, "file answer", -1); }
};

// Head and content, one behind the other.
struct Answer {
    std::unique_ptr<char, BlockFree> block;  // kHeadRoom bytes, then the content
    std::size_t headLength = 0;
    std::size_t size = 0;  // of the content

    char* content() const { return block.get() + kHeadRoom; }
    const char* begin() const { return content() - headLength; }
    std::size_t length() const { return headLength + size; }
};

void writeHead(const Request& request, std::uint32_t date, Answer& answer) {
    char head[kHeadRoom];
    VXWriter out(head, sizeof(head));
    out.text(request.words.head).text(request.name).text(request.words.size);
    out.number(static_cast<std::int64_t>(answer.size)).text(request.words.date).number(date).text(";\n");
    answer.headLength = out.length();
    std::memcpy(answer.content() - answer.headLength, head, answer.headLength);
}

// What the open file is like: the name may stand for another one by now.
bool look(apr_file_t* file, apr_finfo_t& info) {
    const apr_status_t status =
        apr_file_info_get(&info, APR_FINFO_MTIME | APR_FINFO_SIZE | APR_FINFO_TYPE, file);
    return status == APR_SUCCESS && info.filetype == APR_REG && info.size >= 0 && info.size <= kMaxFileSize;
}

// The whole answer from a file that is there. False when it cannot be given.
bool readAnswer(const Request& request, Answer& answer) {
    const VXPool pool(nullptr);
    apr_file_t* file = nullptr;
    apr_finfo_t info{};
    if (apr_file_open(&file, request.path, APR_FOPEN_READ, APR_FPROT_OS_DEFAULT, pool.get()) != APR_SUCCESS ||
        !look(file, info))
        return false;
    const auto room = static_cast<apr_size_t>(info.size);
    answer.block.reset(static_cast<char*>(VXLB_MALLOC(kHeadRoom + room, "file answer", -1)));
    if (!answer.block) return false;
    apr_size_t taken = 0;
    const apr_status_t status = room ? apr_file_read_full(file, answer.content(), room, &taken) : APR_EOF;
    if (status != APR_SUCCESS && !APR_STATUS_IS_EOF(status)) return false;
    answer.size = taken;
    writeHead(request, static_cast<std::uint32_t>(info.mtime), answer);
    return true;
}

bool isThere(const Request& request) {
    apr_finfo_t info{};
    return vx_stat(request.path, &info) == 0 && info.filetype == APR_REG;  // opening others might wait
}

// What the agent cannot be told ends the process's connections.
void giveUp(const Request& request, const char* what) {
    if (request.process.control.get())
        VX_TRACE(1, kControlThread, kError,
                 "Send Failed, Control Connection Closed. Unable to send %s - %s, connection fd = %d", what,
                 request.name, request.process.controlFd);
    else
        VX_TRACE(1, kControlThread, kError, "Send Failed, Control Connection Closed. Unable to send %s - %s",
                 what, request.name);
    closeAllConnectionsOfProcess(request.address.appIndex, request.address.procIndex);
    request.app.identity.activeProcesses.fetch_sub(1, std::memory_order_relaxed);
}

void sendFile(const Request& request, const Answer& answer) {
    if (vxListenerSend(request.process, answer.begin(), answer.length()) != 0) {
        giveUp(request, "file");
        return;
    }
    VX_TRACE(3, kControlThread, kInfo, "Sent file - %s and filesize is [%d]", request.name,
             static_cast<int>(answer.size));
}

void sendFailed(const Request& request) {
    VX_TRACE(1, kControlThread, kError, "Send Failed and file path is %s", request.path);
    char answer[kFailedSize];
    VXWriter out(answer, sizeof(answer));
    out.text(request.words.failed);
    if (request.words.namesFailed) out.text(request.name);
    out.text(" - ").text(request.path).endLine();
    if (vxListenerSend(request.process, answer, out.length()) != 0) {
        giveUp(request, "buffer");
        return;
    }
    VX_TRACE(3, kControlThread, kInfo, "Sent buffer - %s and buffer size is [%d]", request.name,
             static_cast<int>(out.length()));
}

// False, with the path that was asked for in the request, when it leads out of the folder or is too long.
bool findPath(Request& request, bool isProfile) {
    const char* agentName = request.app.identity.agentName;
    const std::size_t most = isProfile ? kNameSize : kMaxKeyword;
    if (std::strlen(request.name) <= most &&
        vxCachePath(request.path, sizeof(request.path), agentName, request.name))
        return true;
    VXWriter out(request.path, sizeof(request.path));
    out.text(VXProxy.vxHomePath).text("/.cache/").text(agentName).put('/').text(request.name).terminate();
    return false;
}

}  // namespace

void statAndSendFileContent(const char* name, epollPtr_t* address, int isProfile) {
    vxApplication& app = *instanceAt(address->appIndex);
    Request request{isProfile ? kProfileWords : kFileWords,
                    isProfile ? vxBaseName(name) : name,
                    *address,
                    app,
                    *processAt(app, address->procIndex),
                    ""};
    if (!vxHasControl(request.process)) return;  // asked over another connection, which outlived it
    Answer answer;
    if (findPath(request, isProfile != 0) && isThere(request) && readAnswer(request, answer))
        sendFile(request, answer);
    else
        sendFailed(request);
}

}  // namespace vx
