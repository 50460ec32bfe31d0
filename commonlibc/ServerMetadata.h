// Metadata request: the collector asks for names that it does not know.
//
//     vx_meta_data_req:action=send_meta_data;[key=]5,7;...
//
// The numbers of the fields name record types: 5 (methods in use) and 7 (BTs) are written to the data stream
// again, others have nothing to repeat yet; a request without a number asks for everything. The answer on the
// control connection is a line of its own; what waits in the outbox goes out with it.
//
// Threads   Control thread of the instance; current context.
#pragma once

namespace vx {

// The whole request; the line is taken apart.
void handleMetaDataRequest(char* line);
// Writes the records that the fields of a request name.
void parseCurrentRequestMessage(char* line);

}  // namespace vx
