#include "tools/collector/export_text.h"

#include <array>
#include <charconv>
#include <ctime>

#include "tools/collector/collector_text.h"

namespace vx::collector {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

unsigned byteAt(std::string_view text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

// Length of the UTF-8 character at the front: 0 when there is none.
std::size_t characterLength(std::string_view text) {
    const unsigned first = byteAt(text, 0), second = byteAt(text, 1);
    if (first < 0x80) return 1;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4) return 0;
    for (std::size_t at = 1; at < length; ++at)
        if ((byteAt(text, at) & 0xC0) != 0x80) return 0;
    const bool tooLong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool surrogate = first == 0xED && second >= 0xA0;
    const bool tooGreat = first == 0xF4 && second >= 0x90;
    return tooLong || surrogate || tooGreat ? 0 : length;
}

void addEscaped(std::string& out, char byte) {
    constexpr char kHex[] = "0123456789abcdef";
    if (byte == '"' || byte == '\\') {
        out.append({'\\', byte});
    } else if (byte == '\n') {
        out += "\\n";
    } else {
        out.append("\\u00").append({kHex[(byte >> 4) & 0xF], kHex[byte & 0xF]});
    }
}

// Takes a number of exactly so many digits.
bool takeDigits(std::string_view& rest, std::size_t digits, int& out) {
    const std::string_view text = rest.substr(0, digits);
    const auto done = std::from_chars(text.data(), text.data() + text.size(), out);
    if (text.size() != digits || done.ec != std::errc() || done.ptr != text.data() + digits || out < 0)
        return false;
    rest.remove_prefix(digits);
    return true;
}

}  // namespace

void addJsonText(std::string& out, std::string_view text) {
    out += '"';
    while (!text.empty()) {
        const std::size_t length = characterLength(text);
        if (length == 0) {
            out += kReplacement;
        } else if (length == 1 && (text[0] == '"' || text[0] == '\\' || byteAt(text, 0) < ' ')) {
            addEscaped(out, text[0]);
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(length ? length : 1);
    }
    out += '"';
}

void addCsvText(std::string& out, std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
        out += text;
        return;
    }
    out += '"';
    for (const char byte : text) {
        if (byte == '"') out += '"';
        out += byte;
    }
    out += '"';
}

bool readTime(std::string_view text, std::int64_t& ms) {
    if (text.find('-') == std::string_view::npos) return readNumber(text, ms) && ms >= 0;
    std::tm time{};
    if (text.ends_with('Z')) text.remove_suffix(1);
    if (!takeDigits(text, 4, time.tm_year) || !takeChar(text, '-') || !takeDigits(text, 2, time.tm_mon) ||
        !takeChar(text, '-') || !takeDigits(text, 2, time.tm_mday))
        return false;
    if (takeChar(text, 'T') &&
        (!takeDigits(text, 2, time.tm_hour) || !takeChar(text, ':') || !takeDigits(text, 2, time.tm_min)))
        return false;
    if (takeChar(text, ':') && !takeDigits(text, 2, time.tm_sec)) return false;
    const bool inRange = time.tm_mon >= 1 && time.tm_mon <= 12 && time.tm_mday >= 1 && time.tm_mday <= 31 &&
                         time.tm_hour <= 23 && time.tm_min <= 59 && time.tm_sec <= 60 && time.tm_year >= 1970;
    if (!text.empty() || !inRange) return false;
    time.tm_year -= 1900;
    time.tm_mon -= 1;
    ms = static_cast<std::int64_t>(::timegm(&time)) * 1000;
    return true;
}

}  // namespace vx::collector
