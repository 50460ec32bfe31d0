// The lines that announce an instance's connections to the collector.
//
//     control      vx_ctrl_msg_req:appName=...;...;protoVer=0; \n
//     SaaS         zor_saas_auth_agent_msg_req:appName=...;...;agentHostName=...; \n
//     data         vx_data_msg_req:appName=...;...;agentName=...\n
//     auto sensor  auto_sensor_thread_hotspot_data_req:appName=...;...,testIdx=...;...\n
//
// Names are sent plain; line breaks in them become blanks, so that each message stays one line.
//
// Limits    Each line is cut at 2,047 bytes; a cut line keeps its newline. The buffers are terminated.
// Threads   The thread that owns the connection; all on the current context.
#pragma once

namespace vx {

// Fills VXBCISetting.controlMessage (the SaaS line while record 0 is the SaaS endpoint, else the control
// line) and forgets what an earlier collector offered.
void setControlConnectionReqMessage();
void setControlDataReqMessage();        // fills dataMessage
void setControlAutoSensorReqMessage();  // fills autoSensorMessage
// Takes host, port, authtoken and protoVer from a SaaS reply. 0, or 1 for an empty or unreadable line. A
// reply without a usable host leaves record 0 the SaaS endpoint.
int parseSAASClientMsg(char* line);

}  // namespace vx
