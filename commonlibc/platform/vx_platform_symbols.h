// Names of code addresses, for a handler that may call next to nothing.
//
// The start notes which modules are loaded, where, and where their files keep the symbol tables. A later
// look-up reads those tables from the files by pread(), in pieces, on the stack: no lock, no heap, no memory
// held for it meanwhile. A file that was replaced after the start is left alone, since its names would be
// others.
//
// Limits    64 modules; of those with a longer path than 255 bytes, and of those loaded later, no names.
// Threads   vx_symbols_prepare: before other threads exist. vx_symbols_find: one at a time, any thread, in a
//           signal handler too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vx {

inline constexpr std::size_t kSymbolNameSize = 512;

struct VXFrameSymbol {
    std::uintptr_t address;  // given
    bool isReturn;           // given: the address is behind its call
    // Found. `module` is null for an address in none; `name` is 0 for one without a function.
    const char* module;
    std::uintptr_t offset;  // in the module's file, as its symbol table counts
    std::uint64_t nameAt;   // where in the file the name stands; 0: none
    int moduleIndex;
};

void vx_symbols_prepare();
// Fills in what is known of each frame.
void vx_symbols_find(std::span<VXFrameSymbol> frames);
// The function's name as the file has it, cut at size - 1. False without one.
bool vx_symbols_name(const VXFrameSymbol& frame, char* out, std::size_t size);

}  // namespace vx
