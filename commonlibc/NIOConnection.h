// Auto-sensor connection of an instance: connecting, announcing, sending, closing.
//
// One transport is in use, chosen by lws_active: a TCP socket (autoSensor.asSocket) or a libwebsockets
// connection (autoSensor.asWsi).
//
// Limits    A connect takes at most 10 s, over libwebsockets 20 s. A send waits at most 250 ms; then it
//           counts as "took no bytes".
// Errors    The codes of VXDataTransfer.h. A lost connection closes and sets the break flag.
// Threads   The auto-sensor thread, on the current context. checkAndStopThreadAS any.
#pragma once

#include <cstdint>

#include "commonlibc/VXDataTransfer.h"
#include "commonlibc/context/vx_application.h"

namespace vx {

// Connects to the collector of the control connection and announces the connection. False, with the reason
// traced, when none stands.
bool startASVXCollectorCommunication();
// Sends the connect line. False on success, true on failure.
bool send_autoSensor_con_req_msg_to_vxc();
// Notes both ends of the connection, for traces.
void get_as_ip_and_port();
// Closes what is open; what had not arrived is sent by the next connection.
void closeAutoSensorConnection();

int sendDataToVXC();                                               // what the read list holds, over TCP
int send_as_data_to_vxc();                                         // over libwebsockets
VXCarrier vxAutoSensorCarrier(const VXAutoSensorState_t& sensor);  // the connection that stands
// Hands over and sends what the chain holds.
int flushData();
// The entry of the monitors: copies whole records into the chain, a node's worth at a time, and makes room by
// sending when it is full. True when all of them are on their way.
bool dumpAndSendDataToVXC(const char* data, std::int32_t length);
// 0 while the run goes on and no stop is asked for, else 1.
int checkAndStopThreadAS();

}  // namespace vx
