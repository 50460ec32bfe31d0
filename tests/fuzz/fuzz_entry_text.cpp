// Entry point texts, read as method monitor and as exception monitor texts too: all are lines of fields about
// something that has a name.
#include <cstddef>
#include <cstdint>

#include "commonlibc/VXParsingFiles.h"
#include "tests/support/fuzz_method_texts.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Runner = vx::test::MethodTextRunner;
    static Runner entries(vx::parseEntryFile), monitors(vx::parseMethodMonitor),
        exceptions(vx::parseExceptionMonFile);
    if (size == 0) return 0;
    Runner& runner = data[0] & 0x80 ? monitors : data[0] & 0x40 ? exceptions : entries;
    runner.run(data, size);
    return 0;
}
