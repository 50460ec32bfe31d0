#include "commonlibc/exception/VXExceptionNames.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "commonlibc/VXDataDispatcher.h"
#include "commonlibc/vxlb_guard.h"
#include "commonlibc/vxlb_hashMapMethod.h"
#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_trace.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

constexpr std::size_t kNameMax = 1023;
constexpr std::size_t kRecordMax = 1023;

// True, and traced once a run, when the table takes no further name.
bool isFull(VXExceptionTable_t& table, ExceptionName kind) {
    const std::int32_t ceiling = VXProxy.ceilings.maxExceptionRows;
    if (table.count < ceiling) return false;
    if (!table.ceilingTraced)
        VX_TRACE(
            1, kExcpMon, kError,
            "maxExceptionRows = %d names of %d records are known, others get no id and are written as %d",
            ceiling, vxExceptionRecordNumber(kind), kNoExceptionName);
    table.ceilingTraced = 1;
    return true;
}

// Row and name are one block.
exceptionProperties* makeRow(std::string_view name) {
    void* block = VXLB_MALLOC_AND_MEMSET(sizeof(exceptionProperties) + name.size() + 1, "exceptionProperties",
                                         static_cast<int>(name.size()));
    if (!block) return nullptr;
    auto* row = new (block) exceptionProperties{};
    char* copy = static_cast<char*>(block) + sizeof(exceptionProperties);
    std::memcpy(copy, name.data(), name.size());
    row->name = copy;
    return row;
}

exceptionProperties* addRow(VXExceptionTable_t& table, ExceptionName kind, std::string_view name) {
    if (isFull(table, kind)) return nullptr;
    if (!table.map) table.map = create_hashmap(vxCurrent()->pool);
    exceptionProperties* row = table.map ? makeRow(name) : nullptr;
    if (!row) return nullptr;
    row->id = ++table.count;
    row->kind = kind;
    modify_hashmap(row->name, row, table.map);
    (table.last ? table.last->next : table.first) = row;
    table.last = row;
    return row;
}

}  // namespace

std::int32_t vxExceptionNameId(ExceptionName kind, std::string_view name) {
    if (name.empty()) return kNoExceptionName;
    const std::string_view key = name.substr(0, kNameMax);
    VXExceptionTable_t& table = vxCurrent()->exceptions.tables[static_cast<int>(kind)];
    const VXGuard guard(table.mutex);
    auto* row = static_cast<exceptionProperties*>(
        search_hashmap_len(key.data(), static_cast<std::int64_t>(key.size()), table.map));
    if (!row) row = addRow(table, kind, key);
    if (!row) return kNoExceptionName;
    if (!row->told.load(std::memory_order_relaxed))
        row->told.store(dumpExceptionMetaRecord(kind, row->id, row->name), std::memory_order_relaxed);
    return row->id;
}

bool dumpExceptionMetaRecord(ExceptionName kind, std::int32_t id, const char* text) {
    char record[kRecordMax];
    VXWriter out(record, sizeof(record));
    out.number(vxExceptionRecordNumber(kind)).put(',').number(id).put(',').recordText(text).endLine();
    return vxOfferRecord(record, static_cast<std::int64_t>(out.length()));
}

void vxFreeExceptionNames() {
    for (VXExceptionTable_t& table : vxCurrent()->exceptions.tables) {
        while (exceptionProperties* row = table.first) {
            table.first = row->next;
            VXLB_FREE(row, "exceptionProperties", -1);
        }
        destroy_hashmap(table.map);
        table.map = nullptr;
        table.last = nullptr;
        table.count = 0;
    }
}

}  // namespace vx
