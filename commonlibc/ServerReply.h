// Answers to the collector on the control connection.
//
// Limits    A fixed answer has 1,023 bytes; a longer one is cut and keeps its newline.
// Errors    A failed send is traced and orders the connection closed: half a line may have gone out.
// Threads   Control thread of the instance; current context.
#pragma once

#include <cstddef>

namespace vx {

// Sends `length` bytes as they are.
void controlConnectionSendBuffer(const char* text, std::size_t length);
// Adds a text of three parts to the warnings; what does not fit is cut.
void addStartWarning(const char* before, const char* name, const char* after);
void sendResponseToVXC();  // after a start; a second line carries the warnings that were collected
void sendResponseOfStopInstrumentation();
void sendResponseRunTimeChange();
void sendModifyRefused();  // a modify without instrumentation

}  // namespace vx
