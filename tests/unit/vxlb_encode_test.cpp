#include "commonlibc/vxlb_encode.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/record_stream.h"

namespace vx {
namespace {

using namespace test;

// Bytes of a text of hexadecimal pairs; blanks are for the reader.
std::string hex(const char* text) {
    std::string bytes;
    for (; *text; text += *text == ' ' ? 1 : 2)
        if (*text != ' ') bytes.push_back(static_cast<char>(std::stoi(std::string(text, 2), nullptr, 16)));
    return bytes;
}

TEST(VxlbEncode, AFrameOfEachTypeHasTheseBytes) {
    const struct {
        const char* name;
        std::string frame, bytes;
    } rows[] = {
        {"method_entry",
         frameOf(MethodEntryEncode, VXMethodEntryRecord{7, 0x0102030405060708, 9, 1700000000000000,
                                                        wire("a.b.C.m"), wire("/u"), wire("x=1"), wire("q")}),
         hex("5e 0c000000 48000000 00000000 7c  07000000 0807060504030201 0900000000000000"
             "00401e18240a0600 07000000 02000000 03000000 01000000") +
             "a.b.C.m/ux=1q\n"},
        {"method_exit",
         frameOf(MethodExitEncode, VXMethodExitRecord{503, 7, 3, 1, 9, 1500, 77, 20, 4, 0x0A0B, wire("C.m"),
                                                      wire("db:1"), wire("P")}),
         hex("5e 0c000000 63000000 01000000 7c  f7010000 07000000 03000000 01000000"
             "0900000000000000 dc05000000000000 4d00000000000000 1400000000000000"
             "03000000 04000000 01000000 0400000000000000 0b0a000000000000") +
             "C.mdb:1P\n"},
        {"transaction_start",
         frameOf(transactionStartEncode, VXTransactionStart{77, 5, 6, 8, wire("1_2"), wire("/a"), wire("h=v"),
                                                            wire("9-1"), wire("k"), wire("co")}),
         hex("5e 0c000000 55000000 02000000 7c  03000000 02000000 03000000 03000000 01000000 02000000"
             "4d00000000000000 0500000000000000 0600000000000000 0800000000000000") +
             "1_2/ah=v9-1kco\n"},
        {"transaction_end", frameOf(transactionEndEncode, VXTransactionEnd{404, 77, 10, 11, 12}),
         hex("5e 0c000000 2f000000 03000000 7c  94010000 4d00000000000000 0a00000000000000"
             "0b00000000000000 0c000000 0a")},
        {"transaction_reset", resetFrame(77), hex("5e 0c000000 17000000 04000000 7c  4d00000000000000 0a")},
        // The message stands behind the class, but its length behind those of the throwing names.
        {"exception",
         frameOf(ExceptionEncode, VXExceptionRecord{1, 77, 2, 3, wire("Cl"), wire("mes"), wire("T"),
                                                    wire("meth"), wire("cause"), wire("stack!")}),
         hex("5e 0c000000 58000000 05000000 7c  01000000 02000000 01000000 04000000 03000000 05000000"
             "06000000 4d00000000000000 0200000000000000 0300000000000000") +
             "ClmesTmethcausestack!\n"},
        {"http_headers",
         frameOf(transactionEncodeHttp, VXHttpRecord{200, 0xFE, 2, 77, wire("A: b"), wire("req"), wire("id"),
                                                     wire("p"), wire("s=1")}),
         hex("5e 0c000000 44000000 06000000 7c  c8000000 04000000 03000000 fe000000 02000000 02000000"
             "01000000 03000000 4d00000000000000") +
             "A: breqidps=1\n"},
        {"exit_by_exception",
         frameOf(ExceptionMethodExitEncode,
                 VXExceptionExitRecord{3, 77, 9, 10, 11, 12, wire("C.m"), wire("be")}),
         hex("5e 0c000000 48000000 07000000 7c  03000000 03000000 02000000 4d00000000000000"
             "0900000000000000 0a00000000000000 0b00000000000000 0c00000000000000") +
             "C.mbe\n"},
        {"negative_numbers_and_a_null_text",
         frameOf(MethodExitEncode,
                 VXMethodExitRecord{-1, 0, 0, -9, 0, 0, 0, -5, 0, INT64_MIN, {nullptr, 12}, {}, {}}),
         hex("5e 0c000000 5b000000 01000000 7c") + std::string(76, '\0') + "\n"}};
    for (const auto& row : rows) EXPECT_EQ(row.frame, row.bytes) << row.name;
}

}  // namespace
}  // namespace vx
