// File-based keywords: settings too large for a keyword line, which carries a file's name, size and date
// only. What differs from what the instance holds is fetched and goes to the keyword's parser; a copy goes to
// the cache folder, from which agents are served.
//
//     on a start line    changed: fetched and parsed at once
//                        unchanged, or not to be had: what is held is parsed behind the pass
//     on a modify line   changed: fetched and parsed at once
//                        unchanged: what is held is parsed at once, unless it is in force in this run
//
// Limits    See VXFileFetch; a name is cut at kFileNameSize - 1 bytes.
// Errors    A failed fetch leaves the entry as it was, so that the next line asks again. Without a critical
//           file the connection is ordered closed and the keyword pass ends.
// Threads   Control thread of the instance, without any lock; current context.
#pragma once

#include <cstdint>

namespace vx {

// The table's parser of the file keywords.
void setFileBasedKeywd(char* value, const char* keyword, int index);
// One keyword of a line; "NA" (any case) means no file.
void handleFileBasedKeyword(const char* value, const char* keyword, int index);
// Asks for the file and keeps it in the keyword's entry: the content there, or null and the entry as it was.
const char* getFileFromVXC(const char* keyword, int index);
// Writes the cached copy (a profile has its own) and gives a copy of the content to the keyword's parser.
void useFileBasedKeyword(const char* content, std::int64_t size, const char* keyword, int index);
// Before a keyword pass; a start line's begins with no file in force.
void beginFilePass(bool overStartLine);
// What is held and not in force goes to its parser: behind the pass over a start line, else at once.
void useHeldFile(const char* keyword, int index);
// Behind the pass over a start line: what useHeldFile() has left, in the order of the line.
void useHeldFiles();
// The parser's result has been taken back: the same file is parsed when a line names it again.
void forgetFileInForce(int index);
// What must follow a failed fetch: a critical file ends the connection, and so does any file once the
// collector has been silent for longer than the read loop would bear; a connection that is to end ends the
// pass.
void noteFailedFetch(const char* keyword);

}  // namespace vx
