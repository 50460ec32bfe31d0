// General settings of a context: defaults, home, build text, the instance's mutexes.
//
// Start-up calls these on the current context before the context's threads exist: mutexes first, then
// VXSysInit(), then the identity and the settings passes. VXSysInit() may run again on a context whose
// control thread has ended: settings return to their defaults, what other threads count or drive stays, and
// so does what only a settings pass of the context's start gives.
//
// Limits    A path is cut at 4,095 bytes, the build text at 127.
// Errors    A missing home variable leads to the next one of VXHOME, USERPROFILE, HOME, at last to "/proxy";
//           an empty variable counts as missing.
// Threads   Start-up of the context; getters any. The text mutex guards the keyword texts of 10 and 64
//           bytes.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Guards keyword texts (Server.status, Server.fpVersionID, keywords.text). A leaf.
extern std::mutex vxTextMutex;

// Sets the general defaults on the current context; agentType as given ("proxy") serves until the
// identity names another.
void VXSysInit(const char* agentType);
// "%s/proxy" of the first of these variables that is set and not empty, of an empty string without one. The
// variable's name, or null.
const char* vxFindHome(char* path, std::size_t size);
// VXSys.vxHomePath := "%s/proxy" of VXHOME, else USERPROFILE, else HOME, else an empty string.
void setVXHome();
// The same for VXProxy.vxHomePath.
void setProxyVXHome();
const char* getVXHome();  // of the context, else of the process; never null
// Refreshes and answers the build text. setVxBuild: 0 or -1.
int setVxBuild();
const char* getVxBuild();          // never null
std::int64_t getBCIStartUpTime();  // Unix ms
// Makes every mutex of the context that is still null, in the context's pool, or in that of its mutexes when
// it has one. False when one failed.
bool vxMakeContextMutexes(vxApplication& app);
// The context as a new one is, but for its mutexes; what it held has been given back. False without memory.
bool vxRenewContext(vxApplication& app);
// Every text of the context that its threads share.
std::array<VXSharedText*, 26> vxSharedTexts(vxApplication& app);
// Copies a keyword text under the text mutex.
void vxCopyKeywordText(char* destination, std::size_t size, const char* member, std::size_t memberSize);

}  // namespace vx
