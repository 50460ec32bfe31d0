#include "commonlibc/VXFileFetch.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "commonlibc/ServerReply.h"
#include "commonlibc/VXFileCache.h"
#include "commonlibc/VXFileHead.h"
#include "commonlibc/VXSys.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/control_buffer.h"
#include "commonlibc/control_connection.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxlb_clock.h"
#include "commonlibc/vxlb_sock.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_word.h"

namespace vx {

namespace {

// Waits are for the system's poll, so they go by its clock: a wall clock that is set changes nothing.
using WaitClock = std::chrono::steady_clock;
constexpr std::int64_t kWaitStepUs = 500000;  // a stop is seen within a second
constexpr std::int64_t kRetryPauseUs = 2000000;
constexpr std::int64_t kSkipSize = 4096;
constexpr std::size_t kRequestSize = kProfileNameSize + 256;

// What differs between the files of keywords and instrumentation profiles.
struct Kind {
    const char* head;
    const char* failed;
    const char* otherFailed;  // begins like `failed` and is none of these; null: there is none
    bool (*names)(const char* headName, const char* asked);
    const char* failedAgain;
    const char* other;  // begins the trace of a line that is no answer, the line goes behind it
};

bool namesProfile(const char* headName, const char* asked) {
    return vxHeadNames(vxBaseName(headName), vxBaseName(asked));
}

constexpr Kind kFile = {"vx_control_rep:action=file;keyword=",
                        "vx_control_rep:action=Failed",
                        "vx_control_rep:action=FailedInstrumentationProfile",
                        vxHeadNames,
                        "received error second time for file, hence returning",
                        "didn't get file response"};
constexpr Kind kProfile = {"vx_control_rep:action=instrumentation_profile",
                           "vx_control_rep:action=FailedInstrumentationProfile",
                           nullptr,
                           namesProfile,
                           "received error second time folr instrprofile hence returning",
                           "didn't get instrumentation_profile response"};

bool exchangeMustEnd() {
    const vxApplication& app = *vxCurrent();
    return linkStopAsked(app) || app.control.closeCtrlConFlag;
}

// One request and its answer.
class Exchange {
public:
    Exchange(const Kind& kind, const char* name, const char* request)
        : kind_(kind), name_(name), request_(request), app_(*vxCurrent()) {}

    VXFetchedFile run() {
        VXFetchedFile file;
        ask();
        while (const char* line = nextLine()) {
            if (std::strstr(line, kind_.head)) {
                if (takeHead(line, file)) return file;
                if (givenUp_) break;
            } else if (saysFailed(line)) {
                if (!askAgain()) break;
            } else {
                VX_TRACE(2, kControlThread, kInfo, "Response from VXC: %s '%s'. Going to read again.",
                         kind_.other, line);
            }
        }
        addStartWarning("Failed to get response of '", name_, "' file base keyword");
        return {};
    }

private:
    ctrlBufInfo_t* info() { return &app_.control.ctrlBufInfo; }

    void restartClock() {
        deadline_ = WaitClock::now() + std::chrono::microseconds(vx_word_get(app_.VXSys.fileReadTimeout));
    }
    void ask() {
        controlConnectionSendBuffer(request_, std::strlen(request_));
        restartClock();
    }

    // Waits for bytes: step(us, error) reads once and answers their number, 0 for none or a code. The number,
    // or 0 when no more is to be waited for (traced).
    template <class Step>
    int waitFor(Step step) {
        char error[kSockErrorSize] = "";
        for (;;) {
            const std::int64_t left =
                std::chrono::duration_cast<std::chrono::microseconds>(deadline_ - WaitClock::now()).count();
            if (!controlConnected(app_.control)) {
                VX_TRACE(1, kControlThread, kError, "control socket not present");
                app_.control.closeCtrlConFlag = 1;
                return 0;
            }
            if (exchangeMustEnd() || left <= 0) return 0;
            const int count = step(std::min(left, kWaitStepUs), error);
            if (count < 0) {
                VX_TRACE(1, kControlThread, kError,
                         "Response from VXC: Unable to read response '%s'. Error : '%s'", name_, error);
                app_.control.closeCtrlConFlag = 1;  // the connection is gone
                return 0;
            }
            if (count == 0) continue;
            app_.control.lastHeartBeatTime = vxlb_steady_ms();  // a collector that sends files is alive
            return count;
        }
    }

    // The next line, or null when no more is to be waited for.
    const char* nextLine() {
        for (;;) {
            if (const char* line = takeControlLine(info())) return line;
            makeControlRoom(info());
            if (waitFor([&](std::int64_t us, char* error) { return fillControlBuffer(info(), us, error); }) >
                0)
                continue;
            if (info()->readBytes > 0 && std::strstr(unreadBytes(info()), kind_.head)) {
                VX_TRACE(1, kControlThread, kError, "NewLine not found in buf '%s', returning",
                         unreadBytes(info()));
            } else {
                VX_TRACE(1, kControlThread, kError, "No response from VXC for '%s', timeout[%lld]", name_,
                         static_cast<long long>(vx_word_get(app_.VXSys.fileReadTimeout)));
            }
            return nullptr;
        }
    }

    bool saysFailed(const char* line) const {
        if (kind_.otherFailed && std::strstr(line, kind_.otherFailed)) return false;
        return std::strstr(line, kind_.failed) != nullptr;
    }
    // Once, after a pause.
    bool askAgain() {
        if (askedAgain_) {
            VX_TRACE(1, kControlThread, kError, "%s", kind_.failedAgain);
            return false;
        }
        askedAgain_ = true;
        VXCalendar now{};
        vx_platform_local_time(vxlb_now_us(), &now);
        char time[32];
        std::snprintf(time, sizeof(time), "%04d-%02d-%02d %02d:%02d:%02d", now.year, now.month, now.day,
                      now.hour, now.minute, now.second);
        VX_TRACE(1, kControlThread, kWarning,
                 "Response from VXC: File Not Present at Time '%s'. Going to read again.", time);
        if (vxlb_sleep_watching(kRetryPauseUs, exchangeMustEnd)) return false;
        ask();
        return true;
    }

    // True when `file` is filled. Else the next line may be the right one, unless givenUp_.
    bool takeHead(const char* line, VXFetchedFile& file) {
        char headName[kFileNameSize];
        std::int64_t size = 0, lmd = 0;
        givenUp_ = true;
        if (getFileSizeAndLmd(line, headName, &size, &lmd) != 0) {
            VX_TRACE(1, kControlThread, kError, "Head '%s' has no size and date, returning", line);
            return false;
        }
        const bool expected = headIsExpected(line, headName);
        if (!expected) {
            VX_TRACE(1, kControlThread, kWarning,
                     "Response from VXC: Didn't receive expected header message '%s'.Going to read data upto "
                     "size bytes.",
                     line);
            addStartWarning("Didn't receive expected header message while reading response  from VXC for '",
                            name_, "' file based keyword.");
        }
        if (size < 1 || size > kMaxFileSize) {
            VX_TRACE(1, kControlThread, kError, "Size of file %lld is %s, returning",
                     static_cast<long long>(size), size < 1 ? "<= 0" : "above the limit");
            return false;
        }
        restartClock();
        if (expected) return takeContent(file, size, lmd);
        givenUp_ = !skipContent(size);
        return false;
    }
    // A profile's head may come without a name.
    bool headIsExpected(const char* line, const char* headName) const {
        if (&kind_ == &kProfile && !std::strstr(line, "instrProfile=")) return true;
        return kind_.names(headName, name_);
    }

    bool takeContent(VXFetchedFile& file, std::int64_t size, std::int64_t lmd) {
        VXFileText content = vxMakeFileText(size);
        if (!content || !receive(content.get(), size)) return false;
        file.content = std::move(content);
        file.size = size;
        file.lmd = lmd;
        return true;
    }
    bool skipContent(std::int64_t size) {
        char dropped[kSkipSize + 1];
        for (; size > 0; size -= std::min(size, kSkipSize))
            if (!receive(dropped, std::min(size, kSkipSize))) return false;
        return true;
    }
    // Exactly `size` bytes, to a block with room for one more.
    bool receive(char* out, std::int64_t size) {
        std::int64_t held = takeControlBytes(info(), out, size);
        while (held < size) {
            const int count = waitFor([&](std::int64_t us, char* error) {
                return readPastControlBuffer(out + held, size - held, us, error);
            });
            if (count == 0) {
                VX_TRACE(1, kControlThread, kError,
                         "Unable to receive response from VXC while reading content of file, for "
                         "timeout[%lld]",
                         static_cast<long long>(vx_word_get(app_.VXSys.fileReadTimeout)));
                return false;
            }
            held += count;
            restartClock();
        }
        return true;
    }

    const Kind& kind_;
    const char* name_;
    const char* request_;
    vxApplication& app_;
    WaitClock::time_point deadline_;  // of the present wait
    bool askedAgain_ = false;
    bool givenUp_ = false;
};

}  // namespace

VXFileText vxMakeFileText(std::int64_t size) {
    const auto bytes = static_cast<std::size_t>(size);
    VXFileText text(static_cast<char*>(VXLB_MALLOC(bytes + 1, "file content", -1)));
    if (text) text.get()[bytes] = '\0';
    return text;
}

VXFetchedFile vxFetchFile(const char* keyword) {
    char request[kRequestSize];
    std::snprintf(request, sizeof(request), "vx_control_req:action=send_file;keyword=%s;\n", keyword);
    return Exchange(kFile, keyword, request).run();
}

VXFetchedFile vxFetchProfile(const char* name) {
    const Server_t& server = vxCurrent()->Server;
    char request[kRequestSize], status[sizeof(server.status)];
    vxCopyKeywordText(status, sizeof(status), server.status, sizeof(server.status));
    std::snprintf(request, sizeof(request),
                  "vx_control_req:action=send_instrumentation_profile;status=%s;instrProfile=%s\n", status,
                  name);
    return Exchange(kProfile, name, request).run();
}

}  // namespace vx
