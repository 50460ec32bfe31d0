#include "commonlibc/http/VXHttpNameList.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"

namespace vx {

namespace {

constexpr const char* kListName = "header name list";

bool before(const char* left, const char* right) {
    return strcasecmp(left, right) < 0;
}

char* trimmed(char* name) {
    constexpr const char* blanks = " \t\r";
    name += std::strspn(name, blanks);
    std::size_t length = std::strlen(name);
    while (length && std::strchr(blanks, name[length - 1])) --length;
    name[length] = '\0';
    return name;
}

}  // namespace

void vxGatherName(VXGatheredNames& gathered, char* name) {
    name = trimmed(name);
    if (!*name) return;
    if (gathered.count == kMaxListedNames || std::strlen(name) > kHeaderNameMax) {
        VX_TRACE(1, kControlThread, kWarning, "Header name '%.64s' is left out, a list has %d of %d bytes",
                 name, kMaxListedNames, static_cast<int>(kHeaderNameMax));
        return;
    }
    gathered.names[gathered.count++] = name;
}

bool vxMakeNameList(VXHttpNameList& list, VXGatheredNames& gathered) {
    const auto count = static_cast<std::size_t>(gathered.count);
    if (count == 0) {
        list = {};
        return true;
    }
    char** const end = gathered.names + count;
    std::sort(gathered.names, end, before);
    std::size_t size = count * sizeof(char*);
    for (char** name = gathered.names; name < end; ++name) size += std::strlen(*name) + 1;
    auto* block = static_cast<char*>(VXLB_MALLOC(size, kListName, -1));
    if (!block) return false;
    list = {reinterpret_cast<char**>(block), gathered.count};
    char* text = block + count * sizeof(char*);
    for (std::size_t i = 0; i < count; ++i) {
        list.names[i] = text;
        text = stpcpy(text, gathered.names[i]) + 1;
    }
    return true;
}

bool vxNameListed(const VXHttpNameList& list, const char* name) {
    return list.count && std::binary_search(list.names, list.names + list.count, name, before);
}

void vxFreeNameList(VXHttpNameList& list) {
    VXLB_FREE(list.names, kListName, -1);
    list = {};
}

}  // namespace vx
