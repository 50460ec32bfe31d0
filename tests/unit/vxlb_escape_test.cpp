#include "commonlibc/vxlb_escape.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/by_name.h"

namespace vx {
namespace {

std::size_t backendName(char* out, std::size_t size, const char* in) {
    return escapeHTMLforBackendName(out, size, in, std::strlen(in));
}
std::size_t html0(char* out, std::size_t size, const char* in) {
    return escapeHTML(out, size, in, 0);
}
std::size_t html1(char* out, std::size_t size, const char* in) {
    return escapeHTML(out, size, in, 1);
}
std::size_t decode0(char* out, std::size_t size, const char* in) {
    return decodeUnderscore(out, size, in, 0);
}
std::size_t decode1(char* out, std::size_t size, const char* in) {
    return decodeUnderscore(out, size, in, 1);
}

struct EscapeCase {
    const char* name;
    std::size_t (*function)(char* out, std::size_t size, const char* in);
    std::size_t size;
    const char* in;
    const char* out;
};
class Escapes : public testing::TestWithParam<EscapeCase> {};

TEST_P(Escapes, Writes) {
    const EscapeCase& row = GetParam();
    char out[128];
    std::memset(out, '#', sizeof(out));
    EXPECT_EQ(row.function(out, row.size, row.in), std::strlen(row.out));
    EXPECT_STREQ(out, row.out);
    EXPECT_EQ(out[row.size], '#') << "wrote behind its destination";
}

INSTANTIATE_TEST_SUITE_P(WholeTexts, Escapes,
                         testing::ValuesIn<EscapeCase>({
                             {"url", escapeURLEncoding, 100, "a\n\r\"&',.:\\^|b_>/% ",
                              "a%A%D%22%26%27%2C%2E%3A%5C%5E%7Cb_>/% "},
                             {"stack_trace", escapeURLEncodingForExceptionStackTrace, 100,
                              "at a.b(c, d)\nat e|", "at%20a.b(c%2C%20d)%7Cat%20e|"},
                             {"log_text", replaceCharacterForVXJT, 100, "a\n\r,|%b .", "a%0A%0D%2C%7C%25b ."},
                             {"backend", backendName, 100, "\n\r\"&',.:\\^|>_",
                              "&#10;&#13;&#34;&#38;&#39;&#44;&#46;&#58;&#92;&#94;|>_"},
                             {"html_mode_0", html0, 100, "\n\r\"&',.:\\^|>_",
                              "&#10;&#13;&#34;&#38;&#39;&#44;&#46;&#58;&#92;&#94;&#124;&#62;_"},
                             {"html_mode_1", html1, 100, "a_b&|_", "a&#95;b&|&#95;"},
                             {"decode_references", decode0, 100, "a&#95;b%5F&#95", "a_b%5F&#95"},
                             {"decode_url_form", decode1, 100, "a%5Fb&#95;%5", "a_b&#95;%5"},
                             {"record_text", vxlb_copy_record_text, 100, "a\r\nb,c", "a  b,c"},
                             {"high_bytes_stay", escapeURLEncoding, 100, "\xC3\xA9\xFF", "\xC3\xA9\xFF"},
                             {"null", escapeURLEncoding, 100, nullptr, ""},
                             {"null_decoded", decode1, 100, nullptr, ""},
                         }),
                         test::byName);
INSTANTIATE_TEST_SUITE_P(Cuts, Escapes,
                         testing::ValuesIn<EscapeCase>({
                             {"url_fits_exactly", escapeURLEncoding, 4, ",", "%2C"},
                             {"url_never_inside_an_escape", escapeURLEncoding, 6, "ab,:", "ab%2C"},
                             {"url_escape_one_short", escapeURLEncoding, 5, "ab,", "ab"},
                             {"url_needs_three_bytes_of_room", escapeURLEncoding, 5, "abcd", "abc"},
                             {"backend_needs_six_bytes_of_room", backendName, 8, "abcdef", "abc"},
                             {"html_reference_one_short", html1, 6, "a_", "a"},
                             {"html_reference_fits_exactly", html1, 7, "a_", "a&#95;"},
                             {"html_short_name_in_three_times_its_length", html1, 3, "A", "A"},
                             {"decoded", decode1, 3, "%5F%5F%5F", "__"},
                             {"record_text_cut", vxlb_copy_record_text, 3, "a\nb", "a "},
                             {"room_for_a_terminator_only", replaceCharacterForVXJT, 1, "a", ""},
                         }),
                         test::byName);

TEST(EscapeHTMLforBackendName, StopsAtItsLengthAndAtATerminator) {
    char out[32];
    EXPECT_EQ(escapeHTMLforBackendName(out, sizeof(out), "a.b.c", 3), 7u);
    EXPECT_STREQ(out, "a&#46;b");
    EXPECT_EQ(escapeHTMLforBackendName(out, sizeof(out), "ab", 20), 2u);
    EXPECT_EQ(escapeHTML(nullptr, 0, "a", 1), 0u);
}

}  // namespace
}  // namespace vx
