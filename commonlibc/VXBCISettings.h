// An instance's identity towards the collector: defaults, setters, getters.
//
// A setter with an equal value changes nothing; otherwise the new copy is published and the old one retired.
// A null text is passed over. A name's encoded copy, which the data stream uses, is made with the name:
// each "_" becomes "&#95;", cut at 3 times the name's length.
//
// Errors    A value that is not valid is traced and has no effect: the earlier value stays.
// Threads   Setters: start-up of the context, then its control thread. Getters: any. All on the current
//           context.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Defaults, status table and the collector array (five zeroed records) of the current context. Names that
// are set already stay, and so does the identity's side of an instance that is set up: no later settings
// pass would bring it back.
void VXBCISettingInit();
void setTierName(const char* name);
void setAppServerName(const char* name);
// An equal name only marks Server.sameAppName.
void setAppName(const char* name);
void setAppServerName_VXC(const char* name);  // the name as the collector knows it: as setAppServerName()
// Also sets agentTypeCode (python, php, dotnet, java, go; any other text leaves the code).
void setAgentType(const char* text);
void setAgentVersion(const char* text);
void setTierAttr(const char* text);  // the text, and its JSON as `attributes`
void setAgentAppName(const char* text);
void setEndPointPrefix(const char* text);
void setProjKey(const char* text);
void setAuthtoken(const char* text);
void setSaasHostPort(const char* text);  // "host:port"; without a port the port stays
// Refuses (traced "Invalid VXC IP - %s") what checkVXCHost does not take: 0 or -1.
int setVXCHost(const char* host);
// True for 1 to 255 bytes of letters, digits, ".", "-", ":", "_".
bool checkVXCHost(const char* host);
// True for 1 to 65535. The port setters refuse (traced) any other.
bool checkVXCPort(int port);
void setVXCPort(int port);
void setVXC_TCP_Port(int port);
void setVXC_WS_Port(int port);
void setVXC_WSS_Port(int port);
void setStackSize(int size);  // 256, 512 or 1024; any other is ignored
void setAutoScalingMode(int mode);
void setProtoVer(int version);
// JSON, or "key=value" pairs separated by ",".
void setJson_tag(const char* json);
void setJson_attr(const char* json);
void resetVXCHostAndPort();  // no host, port 443
const char* getTierName();   // never null
const char* getAppServerName();
const char* getAppName();
int getTierID();
int getAppServerID();
int getAppID();
// True when the status table marks an HTTP status as an error ("F"); outside 0 to 599 never.
bool isErrorStatus(const vxApplication& app, std::int32_t status);
// Number at the start of a settings text (0 without one), held within the range of an int.
int vxNumberOf(const char* text);

}  // namespace vx
