#include "commonlibc/vxlb_escape.h"

#include <cstring>
#include <initializer_list>

#include "commonlibc/vxlb_utiles.h"
#include "commonlibc/vxlb_writer.h"

namespace vx {

namespace {

struct Escape {
    char byte;
    const char* text;
};

// The text of each byte that is replaced, null for the others.
struct EscapeTable {
    const char* text[256] = {};

    consteval EscapeTable(std::initializer_list<Escape> rows) { add(rows); }
    consteval EscapeTable(const EscapeTable& base, std::initializer_list<Escape> rows) : EscapeTable(base) {
        add(rows);
    }

private:
    consteval void add(std::initializer_list<Escape> rows) {
        for (const Escape& row : rows) text[static_cast<unsigned char>(row.byte)] = row.text;
    }
};

// The two short ones are on purpose: the collector knows them so.
constexpr EscapeTable kUrlEscapes{{'\n', "%A"},  {'\r', "%D"}, {'"', "%22"}, {'&', "%26"},
                                  {'\'', "%27"}, {',', "%2C"}, {'.', "%2E"}, {':', "%3A"},
                                  {'\\', "%5C"}, {'^', "%5E"}, {'|', "%7C"}};
constexpr EscapeTable kStackTraceEscapes{{'\n', "%7C"}, {' ', "%20"}, {',', "%2C"}};
constexpr EscapeTable kLogEscapes{{'\n', "%0A"}, {'\r', "%0D"}, {',', "%2C"}, {'|', "%7C"}, {'%', "%25"}};
constexpr EscapeTable kBackendEscapes{{'\n', "&#10;"}, {'\r', "&#13;"}, {'"', "&#34;"}, {'&', "&#38;"},
                                      {'\'', "&#39;"}, {',', "&#44;"},  {'.', "&#46;"}, {':', "&#58;"},
                                      {'\\', "&#92;"}, {'^', "&#94;"}};
constexpr EscapeTable kHeaderEscapes(kBackendEscapes, {{'|', "&#124;"}, {'>', "&#62;"}});
constexpr EscapeTable kUnderscoreEscapes{{'_', "&#95;"}};

constexpr std::size_t kToTerminator = static_cast<std::size_t>(-1);
constexpr std::size_t kAnyRoom = 1;  // the copy goes on while so many bytes are left
constexpr std::size_t kUrlRoom = 3;
constexpr std::size_t kBackendRoom = 6;  // a reference and the terminator

// Copies up to `length` bytes (a terminator ends them earlier) with the replacements of `table`, while
// `roomNeeded` bytes are left and what is next fits whole. The length written.
std::size_t copyEscaped(char* out, std::size_t size, const char* in, std::size_t length,
                        const EscapeTable& table, std::size_t roomNeeded) {
    if (size == 0) return 0;
    std::size_t written = 0;
    for (std::size_t i = 0; in && i < length && in[i] && size - written >= roomNeeded; ++i) {
        const char* escape = table.text[static_cast<unsigned char>(in[i])];
        const std::size_t width = escape ? std::strlen(escape) : 1;
        if (width >= size - written) break;
        std::memcpy(out + written, escape ? escape : &in[i], width);
        written += width;
    }
    out[written] = '\0';
    return written;
}

struct Reference {
    char byte;
    std::size_t width;  // bytes of the text that it stands for
};
// The decimal reference of one byte at the beginning of a text, or its first byte as it is.
Reference readReference(const char* text) {
    constexpr int kDigits = 3;
    const Reference plain{*text, 1};
    if (text[0] != '&' || text[1] != '#') return plain;
    int code = 0, width = 2;
    for (; width < 2 + kDigits && text[width] >= '0' && text[width] <= '9'; ++width)
        code = code * 10 + (text[width] - '0');
    if (text[width] != ';' || code < 1 || code > 255) return plain;
    return {static_cast<char>(static_cast<unsigned char>(code)), static_cast<std::size_t>(width) + 1};
}

}  // namespace

std::size_t escapeURLEncoding(char* destination, std::size_t size, const char* source) {
    return copyEscaped(destination, size, source, kToTerminator, kUrlEscapes, kUrlRoom);
}

std::size_t escapeURLEncodingForExceptionStackTrace(char* destination, std::size_t size, const char* source) {
    return copyEscaped(destination, size, source, kToTerminator, kStackTraceEscapes, kUrlRoom);
}

std::size_t replaceCharacterForVXJT(char* destination, std::size_t size, const char* source) {
    return copyEscaped(destination, size, source, kToTerminator, kLogEscapes, kAnyRoom);
}

std::size_t escapeHTMLforBackendName(char* out, std::size_t outSize, const char* in, std::size_t inLength) {
    return copyEscaped(out, outSize, in, inLength, kBackendEscapes, kBackendRoom);
}

std::size_t escapeHTML(char* destination, std::size_t size, const char* source, int mode) {
    const EscapeTable& table = mode == 1 ? kUnderscoreEscapes : kHeaderEscapes;
    return copyEscaped(destination, size, source, kToTerminator, table, kAnyRoom);
}

std::size_t decodeUnderscore(char* destination, std::size_t size, const char* source, int mode) {
    const char* encoded = mode == 1 ? "%5F" : "&#95;";
    const std::size_t width = std::strlen(encoded);
    VXWriter out(destination, size);
    while (source && *source && out.length() + 1 < size) {
        const bool found = std::strncmp(source, encoded, width) == 0;
        out.put(found ? '_' : *source);
        source += found ? width : 1;
    }
    out.terminate();
    return out.length();
}

std::size_t decodeHTML(char* destination, std::size_t size, const char* source) {
    VXWriter out(destination, size);
    while (source && *source && out.length() + 1 < size) {
        const Reference reference = readReference(source);
        out.put(reference.byte);
        source += reference.width;
    }
    out.terminate();
    return out.length();
}

std::size_t vxlb_copy_record_text(char* destination, std::size_t size, const char* source) {
    const std::size_t length = vxlb_copy_text(destination, size, source);
    for (std::size_t i = 0; i < length; ++i)
        if (destination[i] == '\n' || destination[i] == '\r') destination[i] = ' ';
    return length;
}

}  // namespace vx
