// Keywords that tie requests together: session cookies, the correlation header, the trace context.
//
//     enableVXSession        on%20cookie%20domain%20headerInResponse%20mpos%20flowpaths%20idle ms
//     KWCookie               cookie
//     correlationIDHeader    header, or on%20header; empty: off
//     enableOTELStandard     on%20ids in records%20traceparent%20tracestate%20B3%20four fields for the agents
//
// Cookie names, headerInResponse and mpos are for the agents; the cookies themselves come with the start of a
// transaction. Fields of enableVXSession that are missing keep their values.
//
// Errors    A refused field or value is traced and leaves the earlier one.
// Threads   Control thread; all on the current context. What they store is read by any thread.
#pragma once

namespace vx {

void setEnableVXSession(char* value, const char* keyword, int index);
void setKWCookie(char* value, const char* keyword, int index);
void setCorrelationIDHeader(char* value, const char* keyword, int index);
void setpropheadcheck(char* value, const char* keyword, int index);

// Fields of enableVXSession. An empty name clears it.
void setVXSessionCookieName(const char* name);
void setCookieDomainName(const char* name);
// Milliseconds, kept as seconds, at least 1; 0: sessions never grow old.
void setVxSessionIdleTimeOutSecs(const char* value);

}  // namespace vx
