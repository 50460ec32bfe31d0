// Escaping: what would break a record or a line is replaced while text is copied.
//
// Limits    Each function stops before the byte that does not fit and terminates `destination`; an escape
//           is never cut inside. The two of URLs stop already with fewer than 3 bytes of room left, that of
//           back-end names with fewer than 6 (a destination of 3 or 6 times the source plus 1 takes all).
//           A null source gives an empty text, a size of 0 nothing. The length written is the result.
// Threads   Any; no state.
#pragma once

#include <cstddef>

namespace vx {

// newline %A, carriage return %D, and " & ' , . : \ ^ | as % and two hex digits.
std::size_t escapeURLEncoding(char* destination, std::size_t size, const char* source);
// newline %7C, blank %20, comma %2C.
std::size_t escapeURLEncodingForExceptionStackTrace(char* destination, std::size_t size, const char* source);
// Log text for the log dispatcher: newline, carriage return, comma, pipe and % as % and two hex digits.
std::size_t replaceCharacterForVXJT(char* destination, std::size_t size, const char* source);
// Decimal character references ("&#44;") for newline, CR, " & ' , . : \ ^.
std::size_t escapeHTMLforBackendName(char* out, std::size_t outSize, const char* in, std::size_t inLength);
// mode 1: `_` becomes "&#95;"; mode 0: the bytes of escapeHTMLforBackendName, and | and >.
std::size_t escapeHTML(char* destination, std::size_t size, const char* source, int mode);
// Undoes the decimal references of the two: "&#46;" becomes its byte, any other text stays.
std::size_t decodeHTML(char* destination, std::size_t size, const char* source);
// Undoes "%5F" (mode 1) or "&#95;" (mode 0).
std::size_t decodeUnderscore(char* destination, std::size_t size, const char* source, int mode);
// Copies a text field of a record: bytes 10 and 13 become blanks, so that the record stays one line.
std::size_t vxlb_copy_record_text(char* destination, std::size_t size, const char* source);

}  // namespace vx
