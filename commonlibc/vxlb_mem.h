// Allocation: the four macros through which every heap block of the service is taken and given back.
//
// Each use names what is being allocated and the index it is for (-1 where none applies); at memory trace
// level 1 or above every use leaves a line under the module "MEMORY".
//
// Errors    A failed allocation is traced ("Out of Memory ...") and answers null; the caller proceeds.
// Threads   Any.
#pragma once

#include <cstddef>

namespace vx {

void* vxlb_malloc(std::size_t size, const char* what, int index);             // contents undefined
void* vxlb_malloc_and_memset(std::size_t size, const char* what, int index);  // zero-filled
// Refuses a size of 0 or one above INT64_MAX (a negative value on its way through size_t): null, the
// block stays as it is. On failure the old block stays too.
void* vxlb_realloc(void* block, std::size_t size, const char* what, int index);
void vxlb_free(void* block, const char* what, int index) noexcept;  // null is passed over

}  // namespace vx

#define VXLB_MALLOC(size, what, index) ::vx::vxlb_malloc((size), (what), (index))
#define VXLB_MALLOC_AND_MEMSET(size, what, index) ::vx::vxlb_malloc_and_memset((size), (what), (index))
#define VXLB_REALLOC(block, size, what, index) ::vx::vxlb_realloc((block), (size), (what), (index))
#define VXLB_FREE(block, what, index) ::vx::vxlb_free((block), (what), (index))
