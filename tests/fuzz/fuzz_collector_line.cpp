// Splitter and dispatch of collector lines: any bytes, in reads of any size. The first byte is the size of a
// read, and whether a connect reply is still due.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "commonlibc/control_lines.h"
#include "tests/support/bare_context.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    vx::vxApplication& app = vx::test::bareContext();
    vx::ctrlBufInfo_t& info = app.control.ctrlBufInfo;
    app.data.data_thread_running = 1;  // a start is given up before it makes threads
    app.Server.instrumentationStarted = 1;
    app.Server.replyReceived = data[0] & 1;
    const std::size_t step = data[0] / 2 + 1U;
    for (std::size_t at = 1; at < size;) {
        const auto room = static_cast<std::size_t>(vx::kControlBufSize - info.writeOffset);
        const std::size_t count = std::min({step, room, size - at});
        std::memcpy(info.read_socket_buf + info.writeOffset, data + at, count);
        info.writeOffset += static_cast<std::int32_t>(count);
        info.readBytes += static_cast<std::int32_t>(count);
        info.read_socket_buf[info.writeOffset] = '\0';
        at += count;
        vx::processControlConnectionMessage(&info);
        if (app.control.lateVerdict != 0) break;
    }
    vx::test::clearLink(app);
    return 0;
}
