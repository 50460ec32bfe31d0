#include "commonlibc/VXMonitorReport.h"

#include <cstring>

#include "commonlibc/NIOConnection.h"

namespace vx {

void vxPutHead(VXWriter& out, int record, const char* prefixId, std::int64_t id, const char* prefix,
               const char* name) noexcept {
    out.number(record).put(',').text(prefixId).number(id).put(':').text(prefix);
    const std::size_t used = out.length() + 1 + static_cast<std::size_t>(kMonitorFiguresMax);
    const std::size_t room = used < kMonitorRecordMax ? kMonitorRecordMax - used : 0;
    out.recordText(name, room).put('|');
}

void vxEndRecord(VXWriter& out, char* buffer, std::int32_t* length) {
    out.endLine();
    *length += static_cast<std::int32_t>(out.length());
    if (*length + kMonitorRecordMax >= kReportBufferSize) vxPassReport(buffer, length);
}

void vxPassReport(char* buffer, std::int32_t* length) {
    if (*length > 0) dumpAndSendDataToVXC(buffer, *length);
    *length = 0;
}

}  // namespace vx
