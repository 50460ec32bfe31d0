// The connect reply: any bytes as the first that a collector sends.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "commonlibc/control_reply.h"
#include "tests/support/bare_context.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vx::vxApplication& app = vx::test::bareContext();
    vx::ctrlBufInfo_t& info = app.control.ctrlBufInfo;
    const std::size_t count = std::min<std::size_t>(size, vx::kControlBufSize);
    if (count > 0) std::memcpy(info.read_socket_buf, data, count);
    info.read_socket_buf[count] = '\0';
    info.readBytes = info.writeOffset = static_cast<std::int32_t>(count);
    vx::handle_vxc_con_res_msg(&info);
    vx::test::clearLink(app);
    return 0;
}
