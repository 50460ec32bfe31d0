// Heads of file answers and the contents behind them: any answer to the request of a file, of a profile and
// of a list of critical files. The first byte says which.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "commonlibc/VXFileHead.h"
#include "commonlibc/VXInstrProfile.h"
#include "commonlibc/VXKeywordPass.h"
#include "tests/support/bare_context.h"

namespace {

constexpr const char* kLines[] = {
    ";vxExceptionMonFile=f|3|1;",
    ";VXEntryPointsFile=f|3|1;",
    ";vxCriticalFileList=f|3|1;",
    ";numInstrProfile=2;instrProfile=a;lmd=1;size=3;instrProfile=b\\c;size=3;lmd=1;",
};

// The answer stands in the read buffer already; the request itself finds no connection.
void answerWith(vx::ctrlBufInfo_t& info, const std::string& text) {
    const std::size_t count = std::min(text.size(), static_cast<std::size_t>(vx::kControlBufSize));
    text.copy(info.read_socket_buf, count);
    info.read_socket_buf[count] = '\0';
    info.readOffset = 0;
    info.readBytes = info.writeOffset = static_cast<std::int32_t>(count);
}

void forgetFiles(vx::VXFileState_t& files) {
    vx::makeInstrProfTableFree();
    VXLB_FREE(files.heldProfiles, "InstrProfTable", -1);
    for (vx::kywdInfo_t& entry : files.kywdInfo) VXLB_FREE(entry.content, "file content", -1);
    std::memset(&files, 0, sizeof(files));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    vx::vxApplication& app = vx::test::bareContext();
    const std::string text = vx::test::textOf(data + 1, size - 1);
    char name[vx::kFileNameSize];
    std::int64_t fileSize = 0, lmd = 0;
    if (vx::getFileSizeAndLmd(text.c_str(), name, &fileSize, &lmd) == 0) vx::vxHeadNames(name, text.c_str());
    answerWith(app.control.ctrlBufInfo, text);
    vx::findStatusFromClientMsg(
        (vx::kStartPrefix + std::string(kLines[data[0] % std::size(kLines)])).c_str());
    app.Server.warnings[0] = '\0';
    forgetFiles(app.files);
    vx::test::clearLink(app);
    return 0;
}
