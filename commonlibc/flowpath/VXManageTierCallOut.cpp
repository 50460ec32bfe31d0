#include "commonlibc/flowpath/VXManageTierCallOut.h"

#include <cstdlib>
#include <cstring>

#include "commonlibc/vx_upcalls.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

constexpr int kFieldsNeeded = 4;
constexpr int kFieldsRead = 9;
constexpr int kCallerId = 3;
constexpr const char* kNotAnnounced = "NA";

void setPreviousSequence(vxTD* slot, const char* text) {
    VXLB_FREE(slot->prevTierSeq, "SeqNo", -1);
    const std::size_t size = std::strlen(text) + 1;
    slot->prevTierSeq = static_cast<char*>(VXLB_MALLOC(size, "SeqNo", -1));
    if (slot->prevTierSeq) std::memcpy(slot->prevTierSeq, text, size);
}

}  // namespace

int setTierCallOut(vxTD* slot, char* chainText) {
    char* fields[kFieldsRead];
    const int count = vxlb_get_tokens_with_multi_delimiter(chainText, fields, "_", kFieldsRead);
    if (count < kFieldsNeeded) {
        VX_TRACE(1, kFlowpath, kError, "Error in received string '%s'", chainText);
        return -1;
    }
    slot->prevFlowpath = std::strtoll(fields[0], nullptr, 10);
    slot->prevTierTime = std::strtoll(fields[1], nullptr, 10);
    setPreviousSequence(slot, fields[2]);
    if (std::strcmp(fields[kCallerId], kNotAnnounced) != 0) VX_UPCALL(dumpRecord91, slot, fields, count);
    return 0;
}

}  // namespace vx
