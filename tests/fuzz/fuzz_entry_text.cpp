// Entry point texts, read as method monitor texts too: both are lines of fields about methods by name.
#include <cstddef>
#include <cstdint>

#include "commonlibc/VXParsingFiles.h"
#include "tests/support/fuzz_method_texts.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static vx::test::MethodTextRunner entries(vx::parseEntryFile), monitors(vx::parseMethodMonitor);
    (size > 0 && data[0] & 0x80 ? monitors : entries).run(data, size);
    return 0;
}
