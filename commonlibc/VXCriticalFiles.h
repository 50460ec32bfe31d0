// Critical files: file keywords without which a start is given up and the connection closed.
//
// Limits    Names that are in the keyword table, each once.
// Threads   Control thread of the instance; current context.
#pragma once

namespace vx {

void setDefaultCriticalFile();  // entry points and BT rules
// The list of the collector's file: keywords at "," ";", blanks or line ends. The text is taken apart. A list
// without any known keyword makes no file critical.
void setvxCriticalFileList(char* text);
bool isCriticalFile(const char* keyword);

}  // namespace vx
