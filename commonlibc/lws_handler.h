// The connections of an instance over libwebsockets, by kind: control, data, auto-sensor, bulk data, log and
// discovery.
//
// One machinery (lws_connection.h) serves them all; a kind is a row that says where its handle stands, what
// its messages are and how long it may wait. A connection runs over the protocol of ActiveAgentProtocolIndex.
//
// Limits    Connecting takes at most 20 s (discovery: 3 s). A send of control that is not taken within 10 s
//           has failed, one of data within 60 s, of discovery within the time given.
// Threads   The owner of each kind: control thread, data thread, auto-sensor thread, listener (discovery).
//           All on the current context.
#pragma once

#include <cstddef>
#include <cstdint>

#include "commonlibc/lws_connection.h"

namespace vx {

// Each puts the connection in its handle; false, with the reason traced, when none stands. One that stood
// before is ended.
bool create_lws_control_connection(const char* host, int port);
bool create_lws_data_connection(const char* host, int port);
bool create_lws_as_connection(const char* host, int port);
bool create_lws_bulk_data_connection(const char* host, int port);
bool create_lws_log_connection(const char* host, int port);
bool create_lws_discovery_connection(const char* host, int port);

// Sends everything and waits until the system has it. 0, or 1 when it did not go out whole: the connection is
// then to be given up.
int send_control_data_via_lws_socket(const char* data, std::int32_t length);
int send_data_via_lws_socket(const char* data, std::int32_t length);
int send_as_data_via_lws_socket(const char* data, std::int32_t length);
int send_bulk_data_via_lws_socket(const char* data, std::int32_t length);
int send_log_data_via_lws_socket(const char* data, std::int32_t length);
// The listener's, within the time that it may spend in waiting.
int send_discovery_data_via_lws_socket(const char* data, std::int32_t length, std::int64_t us);

// Ends the connection of a handle and clears it; an empty handle is passed over.
void vxLwsEndHandle(VXLwsHandle& handle);
void clean_discovery_conn();
void clean_bulk_data_conn();

// Address and port of our end or the other one, for traces; nothing changes where they are not known.
void vxLwsEndOf(const VXLwsConnection& connection, bool ours, char* ip, std::size_t ipSize, int* port);

}  // namespace vx
