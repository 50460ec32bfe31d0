// Data connection of an instance: connecting, announcing, closing, and the records behind an announcement.
//
// One transport is in use, chosen by lws_active: a TCP socket (data.dataSocket) or a libwebsockets
// connection (data.dataWsi).
//
// Order     What a connection has to learn (99, metadata, 110, 111) is sent directly behind its connect line,
//           past the chain: after an outage it stands in front of the older records, and a full chain cannot
//           refuse it. It is repeated with each connection and counts as no record of the run.
// Limits    A connect takes at most 10 s. A send waits at most 1 s; then it counts as "took no bytes".
// Lifetime  Each connect attempt has a pool of its own, destroyed with the attempt or its connection.
// Threads   The data thread. Other threads may test data.dataSocket for null and shut it down.
#pragma once

#include "commonlibc/context/vx_application.h"

namespace vx {

// Connects to the collector of the control connection. False, with the reason traced, when no connection
// results.
bool openDataConnection(vxApplication& app);
// Closes what is open, drops the instance's share of the flowpath reset queue.
void close_data_connection();
// Sends the connect line. False on success, true on failure.
bool send_data_con_req_msg_to_vxc();
// Notes both ends of the connection, for traces.
void get_data_ip_and_port();
// Everything behind a successful connect line: 99 record, metadata (on the first connection of a thread, or
// when doNotDumpMetaData asks for it), 110 and 111 records. False when the connection did not take it all, or
// a stop was seen: the next one begins anew.
[[nodiscard]] bool announceDataConnection(vxApplication& app);
void dumpNewConnectionRecord();  // 99; from here on isTenRecordDump is 1
void tag_record();               // 110; nothing without tags
void attr_record();              // 111; nothing without attributes or for "{}"

}  // namespace vx
