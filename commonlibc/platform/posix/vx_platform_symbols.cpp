#include "commonlibc/platform/vx_platform_symbols.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace vx {

namespace {

constexpr std::size_t kMaxModules = 64;
constexpr std::size_t kPathSize = 256;
constexpr std::size_t kPiece = 64;  // symbols read at a time
constexpr const char* kOwnFile = "/proc/self/exe";

using Symbol = ElfW(Sym);
using Section = ElfW(Shdr);

struct Module {
    char path[kPathSize];          // as the loader names it; of the program itself the real one
    char file[kPathSize];          // what to open
    std::uintptr_t bias;           // added to the file's addresses
    std::uintptr_t first, last;    // of its code
    std::uint64_t symbols, names;  // where in the file; 0: no table
    std::uint64_t symbolCount;
    dev_t device;
    ino_t inode;
    timespec changed;
};
Module modules[kMaxModules];
std::size_t moduleCount = 0;

class OpenFile {
public:
    explicit OpenFile(const char* path) : descriptor_(::open(path, O_RDONLY | O_CLOEXEC)) {}
    ~OpenFile() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    bool stat(struct ::stat* out) const { return descriptor_ >= 0 && ::fstat(descriptor_, out) == 0; }
    // Bytes read, 0 on failure.
    std::size_t read(void* out, std::size_t size, std::uint64_t offset) const {
        const ssize_t got = ::pread(descriptor_, out, size, static_cast<off_t>(offset));
        return got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    template <class T>
    bool whole(T* out, std::uint64_t offset) const {
        return read(out, sizeof(T), offset) == sizeof(T);
    }

private:
    int descriptor_;
};

// The full table where there is one, else that of the exported symbols.
void findTables(const OpenFile& file, Module& module) {
    ElfW(Ehdr) head;
    if (!file.whole(&head, 0) || std::memcmp(head.e_ident, ELFMAG, SELFMAG) != 0) return;
    bool isFull = false;
    for (unsigned i = 0; i < head.e_shnum && !isFull; ++i) {
        Section table;
        Section names;
        const std::uint64_t size = head.e_shentsize;
        if (!file.whole(&table, head.e_shoff + i * size)) return;
        isFull = table.sh_type == SHT_SYMTAB;
        if ((!isFull && table.sh_type != SHT_DYNSYM) || table.sh_entsize != sizeof(Symbol)) continue;
        if (!file.whole(&names, head.e_shoff + table.sh_link * size)) return;
        module.symbols = table.sh_offset;
        module.symbolCount = table.sh_size / sizeof(Symbol);
        module.names = names.sh_offset;
    }
}

void noteRange(const dl_phdr_info& info, Module& module) {
    module.bias = info.dlpi_addr;
    module.first = UINTPTR_MAX;
    for (unsigned i = 0; i < info.dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = info.dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_X)) continue;
        const std::uintptr_t from = info.dlpi_addr + segment.p_vaddr;
        module.first = std::min(module.first, from);
        module.last = std::max(module.last, from + segment.p_memsz);
    }
}

void notePath(const char* name, Module& module) {
    const bool isProgram = !name || !*name;
    std::strncpy(module.file, isProgram ? kOwnFile : name, kPathSize - 1);
    std::strncpy(module.path, module.file, kPathSize - 1);
    if (!isProgram) return;
    const ssize_t length = ::readlink(kOwnFile, module.path, kPathSize - 1);
    if (length > 0) module.path[length] = '\0';
}

int noteModule(dl_phdr_info* info, std::size_t /*size*/, void* /*unused*/) {
    if (moduleCount == kMaxModules) return 1;
    Module& module = modules[moduleCount] = Module{};
    noteRange(*info, module);
    if (module.last == 0) return 0;
    ++moduleCount;
    notePath(info->dlpi_name, module);
    const OpenFile file(module.file);
    struct ::stat state {};
    if (!file.stat(&state)) return 0;  // the kernel's own module has no file
    module.device = state.st_dev;
    module.inode = state.st_ino;
    module.changed = state.st_mtim;
    findTables(file, module);
    return 0;
}

bool isUnchanged(const OpenFile& file, const Module& module) {
    struct ::stat state {};
    return file.stat(&state) && state.st_dev == module.device && state.st_ino == module.inode &&
           state.st_mtim.tv_sec == module.changed.tv_sec && state.st_mtim.tv_nsec == module.changed.tv_nsec;
}

void matchSymbol(const Symbol& symbol, const Module& module, int index, std::span<VXFrameSymbol> frames) {
    if ((symbol.st_info & 0xf) != STT_FUNC || symbol.st_shndx == SHN_UNDEF) return;
    for (VXFrameSymbol& frame : frames) {
        if (frame.moduleIndex != index) continue;
        // A call at a function's very end returns behind it.
        const std::uintptr_t at = frame.offset - (frame.isReturn ? 1 : 0);
        if (at >= symbol.st_value && at - symbol.st_value < symbol.st_size)
            frame.nameAt = module.names + symbol.st_name;
    }
}

void findNames(int index, std::span<VXFrameSymbol> frames) {
    const Module& module = modules[index];
    const OpenFile file(module.file);
    if (module.symbols == 0 || !isUnchanged(file, module)) return;
    Symbol piece[kPiece];
    for (std::uint64_t at = 0; at < module.symbolCount; at += kPiece) {
        const std::size_t count =
            static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, module.symbolCount - at));
        const std::size_t got =
            file.read(piece, count * sizeof(Symbol), module.symbols + at * sizeof(Symbol));
        if (got != count * sizeof(Symbol)) return;
        for (std::size_t i = 0; i < count; ++i) matchSymbol(piece[i], module, index, frames);
    }
}

void findModule(VXFrameSymbol& frame) {
    frame.moduleIndex = -1;
    frame.module = nullptr;
    frame.nameAt = 0;
    for (std::size_t i = 0; i < moduleCount; ++i) {
        const Module& module = modules[i];
        if (frame.address < module.first || frame.address >= module.last) continue;
        frame.moduleIndex = static_cast<int>(i);
        frame.module = module.path;
        frame.offset = frame.address - module.bias;
        return;
    }
}

}  // namespace

void vx_symbols_prepare() {
    moduleCount = 0;
    ::dl_iterate_phdr(noteModule, nullptr);
}

void vx_symbols_find(std::span<VXFrameSymbol> frames) {
    for (VXFrameSymbol& frame : frames) findModule(frame);
    for (std::size_t i = 0; i < moduleCount; ++i) {
        const int index = static_cast<int>(i);
        const bool wanted = std::any_of(frames.begin(), frames.end(), [index](const VXFrameSymbol& frame) {
            return frame.moduleIndex == index;
        });
        if (wanted) findNames(index, frames);
    }
}

bool vx_symbols_name(const VXFrameSymbol& frame, char* out, std::size_t size) {
    if (frame.nameAt == 0 || size < 2) return false;
    const Module& module = modules[frame.moduleIndex];
    const OpenFile file(module.file);
    if (!isUnchanged(file, module)) return false;
    out[file.read(out, size - 1, frame.nameAt)] = '\0';
    return *out != '\0';
}

}  // namespace vx
