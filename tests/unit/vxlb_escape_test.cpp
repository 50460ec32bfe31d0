#include "commonlibc/vxlb_escape.h"

#include <gtest/gtest.h>

#include <cstring>

namespace vx {
namespace {

using Escape = std::size_t (*)(char* out, std::size_t size, const char* in);

constexpr Escape kBackendName = [](char* out, std::size_t size, const char* in) {
    return escapeHTMLforBackendName(out, size, in, std::strlen(in));
};
template <int kMode>
std::size_t html(char* out, std::size_t size, const char* in) {
    return escapeHTML(out, size, in, kMode);
}
template <int kMode>
std::size_t decode(char* out, std::size_t size, const char* in) {
    return decodeUnderscore(out, size, in, kMode);
}

TEST(Escapes, WriteWholeTextsAndCutThemBetweenReferences) {
    const struct {
        Escape function;
        std::size_t size;
        const char *in, *out;
    } rows[] = {
        {escapeURLEncoding, 100, "a\n\r\"&',.:\\^|b_>/% ", "a%A%D%22%26%27%2C%2E%3A%5C%5E%7Cb_>/% "},
        {escapeURLEncodingForExceptionStackTrace, 100, "at a.b(c, d)\nat e|", "at%20a.b(c%2C%20d)%7Cat%20e|"},
        {replaceCharacterForVXJT, 100, "a\n\r,|%b .", "a%0A%0D%2C%7C%25b ."},
        {kBackendName, 100, "\n\r\"&',.:\\^|>_", "&#10;&#13;&#34;&#38;&#39;&#44;&#46;&#58;&#92;&#94;|>_"},
        {html<0>, 100, "\n\r\"&',.:\\^|>_", "&#10;&#13;&#34;&#38;&#39;&#44;&#46;&#58;&#92;&#94;&#124;&#62;_"},
        {html<1>, 100, "a_b&|_", "a&#95;b&|&#95;"},
        {decode<0>, 100, "a&#95;b%5F&#95", "a_b%5F&#95"},
        {decode<1>, 100, "a%5Fb&#95;%5", "a_b&#95;%5"},
        {decodeHTML, 100, "a&#46;b&#124;&#62;&#255;", "a.b|>\xFF"},
        {decodeHTML, 100, "&#0;&#256;&#1234;&#;&#4&#x2E;&&#44;&#", "&#0;&#256;&#1234;&#;&#4&#x2E;&,&#"},
        {decodeHTML, 3, "&#46;&#46;&#46;", ".."},
        {vxlb_copy_record_text, 100, "a\r\nb,c", "a  b,c"},
        {escapeURLEncoding, 100, "\xC3\xA9\xFF", "\xC3\xA9\xFF"},
        {escapeURLEncoding, 100, nullptr, ""},
        {escapeURLEncoding, 4, ",", "%2C"},
        {escapeURLEncoding, 5, "ab,", "ab"},
        {escapeURLEncoding, 6, "ab,:", "ab%2C"},
        {escapeURLEncoding, 5, "abcd", "abc"},  // three bytes of room for each
        {kBackendName, 8, "abcdef", "abc"},     // six
        {html<1>, 6, "a_", "a"},
        {html<1>, 7, "a_", "a&#95;"},
        {decode<1>, 3, "%5F%5F%5F", "__"},
        {vxlb_copy_record_text, 3, "a\nb", "a "},
        {replaceCharacterForVXJT, 1, "a", ""},
    };
    for (const auto& row : rows) {
        char out[128];
        std::memset(out, '#', sizeof(out));
        EXPECT_EQ(row.function(out, row.size, row.in), std::strlen(row.out)) << row.out;
        EXPECT_STREQ(out, row.out);
        EXPECT_EQ(out[row.size], '#') << "wrote behind its destination: " << row.out;
    }
    char out[32];
    EXPECT_EQ(escapeHTMLforBackendName(out, sizeof(out), "a.b.c", 3), 7u);
    EXPECT_STREQ(out, "a&#46;b");
    EXPECT_EQ(escapeHTMLforBackendName(out, sizeof(out), "ab", 20), 2u) << "ends at the terminator";
}

}  // namespace
}  // namespace vx
