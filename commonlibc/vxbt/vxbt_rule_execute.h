// Rule execution: from the URL of a starting transaction to its BT.
//
// Pattern rules win over custom rules, and these over the one global rule, which builds a name from the URL
// and, behind a dot, from the method, one query parameter or one header. What no pattern rule takes is
// "Others"; what no custom rule takes is "others", a BT like any other.
//
// Limits    A name with a dynamic part has at most 511 bytes, one without at most 256; the segments of a
//           URL are sought in its first 255.
// Errors    Null: no BT, the flowpath is excluded. No failure stops a transaction. The pattern path takes
//           neither memory nor a lock.
// Threads   Under the decode lock of the instance, so that rules stay while they are read. Current context.
#pragma once

#include <apr_thread_mutex.h>

#include <cstddef>
#include <string_view>

#include "commonlibc/context/vx_application.h"

namespace vx {

// A URL as agents send it, "path?query|method", taken apart. Views into `text`; null data: the part is not
// there.
struct VXUrlParts {
    std::string_view path, query, method;
};
VXUrlParts vxSplitUrl(std::string_view text);
// The BT, or null: the flowpath is excluded. `headerValue` (may be null) is changed in place. `lock` is held
// while a BT is found or created.
BTObject* get_obj_from_bt_name(const char* url, const char* uRLParameters, char* headerValue,
                               apr_thread_mutex_t* lock, const char* httpMethod);
// The name in `out` (at least kBtNameBufferSize bytes), or null. A null `httpMethod` or `headerPart`, and an
// empty method, leave the name without its dynamic part.
char* vxbt_execute_global_rule(const char* url, const char* uRLParameters, const char* httpMethod,
                               const char* headerPart, char* out);
// The BT name of the best keyword in the URL, in `out` (at least kBtNameBufferSize bytes); "others" without
// one.
char* vxbt_execute_custom_rule(const char* url, char* out);
// The segments of the URL that the global rule names, in `out` (at least kBtNameSize bytes).
char* get_bt_name_from_url(const char* url, char* out);
// Value of the rule's query parameter into `out` (257 bytes); null when there is none.
char* get_param_value(const char* query, char* out);
// Value of the rule's header in "name=value&" pairs; null where it is not there or its pair has no "&" behind
// it. Terminators are written over that "&" and the "=".
char* getBtBaseOnHeader(char* headerValue);

}  // namespace vx
