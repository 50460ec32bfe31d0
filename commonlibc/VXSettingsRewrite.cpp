#include "commonlibc/VXSettingsRewrite.h"

#include <apr_errno.h>
#include <apr_file_io.h>
#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include "commonlibc/VXConfigFile.h"
#include "commonlibc/VXProtocol.h"
#include "commonlibc/VXSettingsFile.h"
#include "commonlibc/context/vx_application.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utf8.h"

namespace vx {

namespace {

constexpr const char* kFileName = "vxsettings.conf";
constexpr const char* kProtocolKey = "VXC_COMM_PROTOCOL";
constexpr std::size_t kRewrittenSize = 1024;
constexpr apr_off_t kMaxFile = 1048576;

// The line's key is `key`: nothing that a key could go on with stands behind it.
bool hasKey(std::string_view line, const char* key) {
    const std::size_t length = std::strlen(key);
    if (line.size() < length || strncasecmp(line.data(), key, length) != 0) return false;
    const auto next = static_cast<unsigned char>(line.size() > length ? line[length] : '=');
    return !std::isalnum(next) && next != '_';
}

// The line as it is to be, without its newline.
std::string rewritten(std::string_view line, const VXSettingsChange& change) {
    const struct {
        const char *key, *value;
    } texts[] = {{"tier", change.tier}, {"server", change.server}, {"vxcHost", change.vxcHost}};
    for (const auto& text : texts)
        if (text.value && hasKey(line, text.key)) return std::string(text.key) + "=" + text.value;
    if (change.vxcPort && hasKey(line, "vxcPort")) return "vxcPort=" + std::to_string(change.vxcPort);
    const std::size_t equals = line.find('=');
    if (!change.vxcPort || equals == std::string_view::npos || !hasKey(line, kProtocolKey))
        return std::string(line);
    // A port there goes before vxcPort.
    return std::string(line.substr(0, equals + 1)) + vxWithPort(line.substr(equals + 1), change.vxcPort);
}

std::string rewrittenFile(std::string_view former, const VXSettingsChange& change) {
    std::string text(former.substr(0, vxlb_mark_length(former)));
    former.remove_prefix(text.size());
    while (!former.empty()) {
        const std::size_t end = former.find('\n');
        const std::string line = rewritten(former.substr(0, end), change);
        if (text.size() + line.size() + 1 > kRewrittenSize) {
            VX_TRACE(1, kControlThread, kWarning, "%s: what stands behind byte %d is not looked at",
                     kFileName, static_cast<int>(text.size()));
            break;
        }
        text.append(line);
        if (end == std::string_view::npos) return text;
        text.push_back('\n');
        former.remove_prefix(end + 1);
    }
    return text.append(former);
}

// A file of the settings folder, closed with its pool.
struct OpenFile {
    VXPool pool{nullptr};
    apr_file_t* file = nullptr;
    apr_finfo_t info{};

    bool open(const char* path, apr_int32_t flags, apr_fileperms_t rights) {
        return apr_file_open(&file, path, flags, rights, pool.get()) == APR_SUCCESS;
    }
};

bool readWhole(OpenFile& from, std::string& text) {
    const apr_int32_t wanted = APR_FINFO_SIZE | APR_FINFO_PROT;
    const apr_status_t status = apr_file_info_get(&from.info, wanted, from.file);
    if ((status != APR_SUCCESS && !APR_STATUS_IS_INCOMPLETE(status)) || from.info.size > kMaxFile)
        return false;
    text.resize(static_cast<std::size_t>(from.info.size));
    apr_size_t taken = 0;
    const apr_status_t result =
        text.empty() ? APR_SUCCESS : apr_file_read_full(from.file, text.data(), text.size(), &taken);
    text.resize(taken);
    return result == APR_SUCCESS;
}

// Written out to the disk before it takes the other's place.
bool writeWhole(const char* path, const std::string& text, apr_fileperms_t rights) {
    OpenFile to;
    constexpr apr_int32_t flags = APR_FOPEN_WRITE | APR_FOPEN_CREATE | APR_FOPEN_TRUNCATE;
    if (!to.open(path, flags, rights)) return false;
    apr_file_perms_set(path, rights);  // whatever the process's mask
    apr_size_t written = 0;
    return apr_file_write_full(to.file, text.data(), text.size(), &written) == APR_SUCCESS &&
           apr_file_sync(to.file) == APR_SUCCESS;
}

bool replaceFile(const char* path, const VXSettingsChange& change) {
    OpenFile former;
    std::string text;
    if (!former.open(path, APR_FOPEN_READ | APR_FOPEN_WRITE, APR_FPROT_OS_DEFAULT) ||
        !readWhole(former, text)) {
        VX_TRACE(1, kControlThread, kError, "Error in opening file '%s'. Hence can't update vxsetting file.",
                 path);
        return false;
    }
    const std::string beside = std::string(path) + ".new";
    if (writeWhole(beside.c_str(), rewrittenFile(text, change), former.info.protection) &&
        apr_file_rename(beside.c_str(), path, former.pool.get()) == APR_SUCCESS)
        return true;
    std::remove(beside.c_str());
    VX_TRACE(1, kControlThread, kError, "Error in writing file '%s'. It stays as it was.", path);
    return false;
}

}  // namespace

int updateVXSettingFile(const VXSettingsChange& change) {
    char path[kConfigPathSize];
    vxConfigPath(path, sizeof(path), kFileName);
    const std::lock_guard lock(vxSettingsFileMutex);
    if (!replaceFile(path, change)) return -1;
    check_file_size_of_vxsetting_files(0);
    return 0;
}

}  // namespace vx
