#include "commonlibc/VXFileCache.h"

#include <cstdio>
#include <cstring>

#include "commonlibc/context/vx_application.h"
#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr const char* kCacheFolder = ".cache";
constexpr unsigned char kFirstPrintable = 32;

bool fits(int length, std::size_t size) {
    return length >= 0 && static_cast<std::size_t>(length) < size;
}

bool writeWhole(const char* path, const char* content, std::size_t length) {
    VXFile file(std::fopen(path, "wb"));
    if (!file) return false;
    const bool written = std::fwrite(content, 1, length, file.get()) == length;
    return std::fclose(file.release()) == 0 && written;
}

// The new content stands beside the file until it is whole. Each instance has a name of its own for it,
// since instances with equal agent names share the folder.
bool replaceFile(const char* path, const char* agentName, const char* content, std::size_t length) {
    char name[64], beside[kCachePathSize];
    std::snprintf(name, sizeof(name), ".new.%d", vxCurrent()->identity.appIndex);
    if (!vxCachePath(beside, sizeof(beside), agentName, name)) return false;
    if (writeWhole(beside, content, length) && std::rename(beside, path) == 0) return true;
    std::remove(beside);
    return false;
}

}  // namespace

bool vxSafeFileName(const char* name) {
    if (!name || !*name || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
    for (const char* at = name; *at; ++at)
        if (*at == '/' || *at == '\\' || static_cast<unsigned char>(*at) < kFirstPrintable) return false;
    return true;
}

const char* vxBaseName(const char* name) {
    const char* base = name;
    for (const char* at = name; *at; ++at)
        if (*at == '/' || *at == '\\') base = at + 1;
    return base;
}

bool vxCachePath(char* out, std::size_t size, const char* agentName, const char* name) {
    *out = '\0';
    if (!VXProxy.vxHomePath || !vxSafeFileName(agentName) || !vxSafeFileName(name)) return false;
    constexpr char slash = kPathSeparator;
    const int length = std::snprintf(out, size, "%s%c%s%c%s%c%s", VXProxy.vxHomePath, slash, kCacheFolder,
                                     slash, agentName, slash, name);
    if (fits(length, size)) return true;
    *out = '\0';
    return false;
}

bool dumpDataInFile(const char* name, const char* content, std::size_t length) {
    const char* agentName = vxCurrent()->identity.agentName;
    char path[kCachePathSize];
    if (!vxCachePath(path, sizeof(path), agentName, name)) {
        VX_TRACE(1, kControlThread, kError, "File '%s' of agent '%s' has no place in the cache folder",
                 name ? name : "(null)", agentName ? agentName : "(null)");
        return false;
    }
    char folder[kCachePathSize];
    vxlb_copy_text(folder, sizeof(folder), path);
    *std::strrchr(folder, kPathSeparator) = '\0';
    makeDir(folder);  // what could not be made fails below
    if (replaceFile(path, agentName, content, length)) return true;
    VX_TRACE(1, kControlThread, kError, "Error in writing file '%s'", path);
    return false;
}

}  // namespace vx
