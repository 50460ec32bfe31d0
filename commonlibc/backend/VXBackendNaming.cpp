#include "commonlibc/backend/VXBackendNaming.h"

#include "commonlibc/vxlb_utiles.h"

namespace vx {

// The default rule is the only one: the agent's text, as it is.
std::size_t settingBackendName(const char* escaped, const char* /*rule*/, char* name, std::size_t size) {
    return vxlb_copy_text(name, size, escaped);
}

std::int64_t getIDForIPResourceURL(const char* /*url*/, std::size_t /*length*/) {
    return kNoResourceId;
}

}  // namespace vx
