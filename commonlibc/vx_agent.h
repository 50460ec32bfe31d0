// Start-up in order: from the defaults to the listener loop.
//
// Threads   agent_init: the service's worker, which becomes the listener. initializeVXApplicationGlobal: the
//           thread that sets an instance up. vxFillUpcalls: before other threads exist.
#pragma once

namespace vx {

struct vxApplication;

// What a root context is made for.
enum class VXRootUse {
    kService,  // the trace log is started, the server's address is asked for
    kCheck,    // reads files and environment and nothing else: no log, no socket
};

// First half of agent_init: the root context, current, with the settings of both files and the environment.
// Null without memory.
vxApplication* vxMakeRoot(const char* poolName, const char* processName, const char* agentType,
                          VXRootUse use);

// Builds the root context, reads the settings, starts the trace log, enters the listener loop; returns
// when the loop returns. A second call starts from the beginning, with the root context, the tables and the
// trace files of the first: starts that fail again and again make the process no larger.
void agent_init(const char* poolName, int poolNameType, const char* processName, const char* agentType,
                int flags);
// Per-instance defaults on the current context.
void initializeVXApplicationGlobal();
// The one place where lower floors learn of upper ones.
void vxFillUpcalls();

}  // namespace vx
