// Strings, tokenizers, environment and small system helpers that all subsystems call.
//
// Threads   Any; no state.
#pragma once

#include <apr_file_info.h>

#include <cstddef>
#include <cstdint>

namespace vx {

// Splits in place at any of `delimiters` (no empty tokens). The count, at most maxFields; later tokens are
// dropped without notice.
int vxlb_get_tokens_with_multi_delimiter(char* string, char** fields, const char* delimiters, int maxFields);
// Splits in place at one whole sequence ("|", "%20", "%2C", "&&") and keeps empty fields. The count, at
// most maxFields; the rest of the text stays in the last field.
int vxlb_split_keep_empty(char* string, char** fields, const char* separator, int maxFields);
// Copies what stands before "=" into `keyword` (cut at size - 1) and answers what follows it; null without
// "=".
char* split_key_value(char* field, char* keyword, std::size_t size);
// The same for ":".
char* split_key_value_colon(char* field, char* name, std::size_t size);
// What follows the first "=" of a line that begins with `keyword` (case ignored); null when it does not,
// or when nothing follows.
const char* search_keyword(const char* line, const char* keyword);
// Removes blanks in place.
void vxlb_remove_whitespaces(char* string);
// Bounded copy with terminator, cut at size - 1. The length copied. A null source gives an empty text.
std::size_t vxlb_copy_text(char* destination, std::size_t size, const char* source);
// Copy of a C string from VXLB_MALLOC (name "text copy"); null for null.
char* vxlb_strdup(const char* text);
// 0 and the value, or -1 when the variable is not set (`buffer` then is empty).
int vxlb_get_env_var_value(const char* name, char* buffer, std::size_t size);
std::int64_t vxlb_get_pid();
std::int64_t vxlb_get_tid();
// 0, or -1 with "From vx_stat method FAIL returned" traced.
int vx_stat(const char* path, apr_finfo_t* info);
// Makes the folder with its parents; an existing one is fine. 0 or -1.
int makeDir(const char* path);
// Operator and type words (case ignored) to the codes of the rule parsers, -1 for any other text.
int setOperationCode(const char* text);
// The address of the local host name, "127.0.0.1" if it cannot be found; at most 255 characters.
void getServerIP(char* buffer, std::size_t size);

}  // namespace vx
