// Keyword pass and the texts that parsers take apart: any fields of a modify line, then the same as rules.
#include <cstddef>
#include <cstdint>
#include <string>

#include "commonlibc/ServerErrorRules.h"
#include "commonlibc/VXKeywordPass.h"
#include "commonlibc/VXKeywords.h"
#include "tests/support/bare_context.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vx::vxApplication& app = vx::test::bareContext();
    const std::string fields(reinterpret_cast<const char*>(data), size);
    vx::findStatusFromClientMsg((std::string(vx::kModifyPrefix) + ";" + fields).c_str());
    vx::parseBtError(fields.c_str());
    vx::setdefaultValues();
    vx::test::clearLink(app);
    return 0;
}
