#include "commonlibc/vxlb_utiles.h"

#include <apr_env.h>
#include <apr_file_io.h>
#include <apr_network_io.h>
#include <apr_strings.h>
#include <strings.h>

#include <cstring>

#include "commonlibc/platform/vx_platform.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr const char* kLoopback = "127.0.0.1";

// Codes of the rule parsers; a word's index is its code.
constexpr const char* kOperationWords[] = {
    "EQUALS",     "CONTAINS",   "STARTS_WITH", "ENDS_WITH",
    "EQ",         "NE",         "LT",          "GT",
    "LE",         "GE",         "TRUE",        "FALSE",
    "EXCEPTION",  "NOT_EQUALS", "CAPTURE",     "EXTRACT_SUBPART",
    "INVOCATION", "VALUE",      "OCCURS",
};

// What follows the first `separator`, and the text ahead of it in `name`.
char* splitAt(char separator, char* field, char* name, std::size_t size) {
    char* at = field ? std::strchr(field, separator) : nullptr;
    if (size > 0) {
        const std::size_t ahead = at ? static_cast<std::size_t>(at - field) : 0;
        const std::size_t length = ahead < size ? ahead : size - 1;
        if (length) std::memcpy(name, field, length);
        name[length] = '\0';
    }
    return at ? at + 1 : nullptr;
}

// The IPv4 address of the local host name, in text. False when it cannot be found.
bool localHostAddress(char* buffer, std::size_t size) {
    const VXPool pool(nullptr);
    char name[APRMAXHOSTLEN + 1] = "";
    if (apr_gethostname(name, sizeof(name), pool.get()) != APR_SUCCESS) return false;
    apr_sockaddr_t* address = nullptr;
    if (apr_sockaddr_info_get(&address, name, APR_INET, 0, 0, pool.get()) != APR_SUCCESS) return false;
    return apr_sockaddr_ip_getbuf(buffer, static_cast<apr_size_t>(size), address) == APR_SUCCESS;
}

}  // namespace

int vxlb_get_tokens_with_multi_delimiter(char* string, char** fields, const char* delimiters, int maxFields) {
    if (!string) return 0;
    int count = 0;
    char* rest = nullptr;
    while (count < maxFields) {
        char* token = apr_strtok(count == 0 ? string : nullptr, delimiters, &rest);
        if (!token) break;
        fields[count++] = token;
    }
    return count;
}

int vxlb_split_keep_empty(char* string, char** fields, const char* separator, int maxFields) {
    if (!string || maxFields < 1) return 0;
    const std::size_t width = std::strlen(separator);
    int count = 0;
    fields[count++] = string;
    while (width > 0 && count < maxFields) {
        char* at = std::strstr(fields[count - 1], separator);
        if (!at) break;
        *at = '\0';
        fields[count++] = at + width;
    }
    return count;
}

char* split_key_value(char* field, char* keyword, std::size_t size) {
    return splitAt('=', field, keyword, size);
}

char* split_key_value_colon(char* field, char* name, std::size_t size) {
    return splitAt(':', field, name, size);
}

const char* search_keyword(const char* line, const char* keyword) {
    if (!line || !keyword || strncasecmp(line, keyword, std::strlen(keyword)) != 0) return nullptr;
    const char* at = std::strchr(line, '=');
    return at && at[1] ? at + 1 : nullptr;
}

void vxlb_remove_whitespaces(char* string) {
    if (!string) {
        VX_TRACE(1, kControlThread, kError, "Invalid input is passed");
        return;
    }
    char* to = string;
    for (const char* from = string; *from; ++from)
        if (*from != ' ') *to++ = *from;
    *to = '\0';
}

std::size_t vxlb_copy_text(char* destination, std::size_t size, const char* source) {
    if (size == 0) return 0;
    const std::size_t length = source ? strnlen(source, size - 1) : 0;
    if (length) std::memmove(destination, source, length);
    destination[length] = '\0';
    return length;
}

char* vxlb_strdup(const char* text) {
    if (!text) return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(VXLB_MALLOC(size, "text copy", -1));
    if (copy) std::memcpy(copy, text, size);
    return copy;
}

int vxlb_get_env_var_value(const char* name, char* buffer, std::size_t size) {
    const VXPool pool(nullptr);
    char* value = nullptr;
    const bool found = apr_env_get(&value, name, pool.get()) == APR_SUCCESS;
    vxlb_copy_text(buffer, size, found ? value : nullptr);
    return found ? 0 : -1;
}

std::int64_t vxlb_get_pid() {
    return vx_platform_process_id();
}

std::int64_t vxlb_get_tid() {
    return vx_platform_thread_id();
}

int vx_stat(const char* path, apr_finfo_t* info) {
    const VXPool pool(nullptr);
    const apr_status_t status = apr_stat(info, path, APR_FINFO_MIN, pool.get());
    info->pool = nullptr;  // dies here
    if (status == APR_SUCCESS || status == APR_INCOMPLETE) return 0;
    VX_TRACE(1, kControlThread, kError, "From vx_stat method FAIL returned");
    return -1;
}

int makeDir(const char* path) {
    const VXPool pool(nullptr);
    return apr_dir_make_recursive(path, APR_FPROT_OS_DEFAULT, pool.get()) == APR_SUCCESS ? 0 : -1;
}

int setOperationCode(const char* text) {
    if (!text) return -1;
    int code = 0;
    for (const char* word : kOperationWords) {
        if (strcasecmp(text, word) == 0) return code;
        ++code;
    }
    return -1;
}

void getServerIP(char* buffer, std::size_t size) {
    if (!localHostAddress(buffer, size)) vxlb_copy_text(buffer, size, kLoopback);
}

}  // namespace vx
