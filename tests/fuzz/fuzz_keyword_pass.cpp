// Keyword pass and the texts that parsers take apart: any fields of a modify line, then the same as error
// rules. Whatever they say, each status is ok or an error.
#include <cstddef>
#include <cstdint>
#include <string>

#include "commonlibc/ServerErrorRules.h"
#include "commonlibc/VXKeywordPass.h"
#include "commonlibc/VXKeywords.h"
#include "tests/support/bare_context.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vx::vxApplication& app = vx::test::bareContext();
    const std::string fields = vx::test::textOf(data, size);
    vx::findStatusFromClientMsg((std::string(vx::kModifyPrefix) + ";" + fields).c_str());
    vx::parseBtError(fields.c_str());
    for (const auto& mark : app.VXBCISetting.btErrorArray) vx::test::require(mark == 'T' || mark == 'F');
    vx::setdefaultValues();
    vx::test::clearLink(app);
    return 0;
}
