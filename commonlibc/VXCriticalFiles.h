// Critical files: file keywords without which a start is given up and the connection closed.
//
// Limits    140 names of at most 31 bytes; longer ones are passed over.
// Threads   Control thread of the instance; current context.
#pragma once

namespace vx {

void setDefaultCriticalFile();  // entry points and BT rules
// The list of the collector's file: keywords at "," ";", blanks or line ends. The text is taken apart. A list
// without any known keyword makes no file critical.
void setvxCriticalFileList(char* text);
bool isCriticalFile(const char* keyword);

}  // namespace vx
