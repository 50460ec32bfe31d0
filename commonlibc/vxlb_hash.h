// Hash of map keys: words of eight bytes, multiplied and folded, with a seed of the process's own, so that
// names which a peer chooses cannot be made to collide.
//
// Limits    Reads the key's bytes and no other, at any alignment.
// Threads   Any; the seed is drawn before the first map exists.
#pragma once

#include <apr_hash.h>

namespace vx {

// An apr_hashfunc_t. A length of APR_HASH_KEY_STRING means a terminated key, and is replaced by its length.
unsigned int vxlb_hash(const char* key, apr_ssize_t* length);
// Draws the seed of this process, once.
void vxlb_hash_init();

}  // namespace vx
