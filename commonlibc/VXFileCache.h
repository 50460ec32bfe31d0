// Cache folder: copies of the collector's files, from which the agents of an instance are served.
//
//     <VXProxy.vxHomePath>/.cache/<agentName>/<keyword or profile name>
//
// Names come over a wire and become the last elements of a path: only a safe name ever does.
//
// Limits    A path that does not fit its buffer is refused, never cut.
// Errors    A copy that cannot be written is traced and costs the copy, nothing else.
// Threads   Any. A file is replaced whole: a reader sees the former content or the new one.
#pragma once

#include <cstddef>

namespace vx {

inline constexpr std::size_t kCachePathSize = 2048;

// True unless the name is null, empty, "." or "..", or holds "/", "\\" or a byte below 32.
bool vxSafeFileName(const char* name);
// What stands behind the last "\\" or "/".
const char* vxBaseName(const char* name);
// The path of a cached file. False, and `out` empty, when a name is unsafe or the path does not fit.
bool vxCachePath(char* out, std::size_t size, const char* agentName, const char* name);
// Writes a file of the current instance's folder, which is made first. False when it was not written.
bool dumpDataInFile(const char* name, const char* content, std::size_t length);

}  // namespace vx
