// Fuzz target: the bytes of an agent's data connection, cut into reads of one size.
//
// The first byte picks the size of a read (0: all at once); the rest is the stream.
#include <cstdint>
#include <string>

#include "tests/support/fuzz_engine.h"
#include "tests/support/record_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vx;
    if (size == 0) return 0;
    vxApplication& app = test::FuzzEngine::forInput();
    const std::size_t step = data[0] ? data[0] : size;
    const std::string stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (std::size_t at = 0; at < stream.size(); at += step) test::readBytes(app, stream.substr(at, step));
    decodeMessage(stream.data(), static_cast<std::int32_t>(stream.size()), 0, 1, "request");
    if (vxRefuseMessages(stream.data(), static_cast<std::int32_t>(stream.size())) >= kPartialSize)
        __builtin_trap();
    test::FuzzEngine::endInput();
    return 0;
}
