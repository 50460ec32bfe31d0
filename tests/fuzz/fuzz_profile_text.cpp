// Instrumentation profiles, one or several behind one another.
#include <cstddef>
#include <cstdint>

#include "commonlibc/VXParsingFiles.h"
#include "tests/support/fuzz_method_texts.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static vx::test::MethodTextRunner profiles(vx::setMethodHashMapNode);
    profiles.run(data, size);
    return 0;
}
