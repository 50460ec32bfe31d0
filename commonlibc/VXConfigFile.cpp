#include "commonlibc/VXConfigFile.h"

#include <apr_errno.h>
#include <apr_file_info.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commonlibc/VXSys.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_utf8.h"

namespace vx {

namespace {

constexpr const char* kConfigFolder = "config";
constexpr std::size_t kReasonSize = 256;

// Empty lines and those with "#" as the first byte that is no blank.
bool isComment(const std::string& line) {
    const std::size_t first = line.find_first_not_of(" \t");
    return first == std::string::npos || line[first] == '#' || line[first] == '\r';
}

VXConfigFault faultOf(const std::string& line, bool tooLong) {
    if (line[0] == ' ' || line[0] == '\t') return VXConfigFault::kIndented;
    if (tooLong) return VXConfigFault::kTooLong;
    return line.find('\0') == std::string::npos ? VXConfigFault::kNone : VXConfigFault::kZeroByte;
}

// The file, open, or null with the answer and its reason.
VXFile openFile(const char* path, VXConfigAnswer& answer, std::string& reason) {
    const VXPool pool(nullptr);
    apr_finfo_t info{};
    apr_status_t status = apr_stat(&info, path, APR_FINFO_TYPE, pool.get());
    if (status == APR_SUCCESS && info.filetype != APR_REG) {
        answer = VXConfigAnswer::kUnreadable;
        reason = "no regular file";
        return nullptr;
    }
    VXFile file(status == APR_SUCCESS ? std::fopen(path, "re") : nullptr);
    if (status == APR_SUCCESS && !file) status = errno;
    char text[kReasonSize];
    if (!file) reason = apr_strerror(status, text, sizeof(text));
    answer = APR_STATUS_IS_ENOENT(status) ? VXConfigAnswer::kMissing : VXConfigAnswer::kUnreadable;
    return file;
}

// Reads up to the line's end and keeps at most `maxLength` bytes. False at the end of the file.
bool readLine(std::FILE* file, std::size_t maxLength, std::string& line, bool& tooLong) {
    line.clear();
    tooLong = false;
    int byte = std::fgetc(file);
    if (byte == EOF) return false;
    for (; byte != EOF && byte != '\n'; byte = std::fgetc(file)) {
        if (line.size() < maxLength) {
            line.push_back(static_cast<char>(byte));
        } else if (byte != '\r') {
            tooLong = true;
        }
    }
    return true;
}

void cutEnd(std::string& line) {
    const std::size_t end = line.find('\r');
    if (end != std::string::npos) line.resize(end);
    line.resize(line.find_last_not_of(" \t") + 1);
}

}  // namespace

void vxConfigPath(char* path, std::size_t size, const char* name) {
    char folder[kConfigPathSize];
    vx_path_join(folder, sizeof(folder), getVXHome(), kConfigFolder);
    vx_path_join(path, size, folder, name);
}

VXConfigAnswer vxWalkConfigLines(const char* path, std::size_t maxLength, const VXConfigVisitor& visit,
                                 std::string& reason) {
    VXConfigAnswer answer;
    const VXFile file = openFile(path, answer, reason);
    if (!file) return answer;
    std::string line;
    bool tooLong = false;
    for (int number = 1; readLine(file.get(), maxLength, line, tooLong); ++number) {
        if (number == 1) line.erase(0, vxlb_mark_length(line));
        if (isComment(line)) continue;
        cutEnd(line);
        visit({number, line.c_str(), faultOf(line, tooLong)});
    }
    if (std::ferror(file.get()) == 0) return VXConfigAnswer::kRead;
    reason = "it breaks off";
    return VXConfigAnswer::kUnreadable;
}

}  // namespace vx
