#include "tools/collector/page_json.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vx::collector {

namespace {

// Least and greatest second byte of a character by its first: overlong forms, surrogates and what lies beyond
// U+10FFFF are none.
bool secondFits(unsigned char first, unsigned char second) {
    switch (first) {
        case 0xE0:
            return second >= 0xA0 && second <= 0xBF;
        case 0xED:
            return second >= 0x80 && second <= 0x9F;
        case 0xF0:
            return second >= 0x90 && second <= 0xBF;
        case 0xF4:
            return second >= 0x80 && second <= 0x8F;
        default:
            return second >= 0x80 && second <= 0xBF;
    }
}

// Bytes that stand for themselves.
bool isPlain(char byte) {
    return byte >= ' ' && byte < 127 && byte != '"' && byte != '\\';
}

const char* shortEscape(char byte) {
    switch (byte) {
        case '"':
            return "\\\"";
        case '\\':
            return "\\\\";
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            return nullptr;
    }
}

}  // namespace

std::size_t utf8Length(std::string_view text) {
    if (text.empty()) return 0;
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return 1;
    const std::size_t length = first >= 0xC2 && first <= 0xDF   ? 2
                               : first >= 0xE0 && first <= 0xEF ? 3
                               : first >= 0xF0 && first <= 0xF4 ? 4
                                                                : 0;
    if (length == 0 || text.size() < length || !secondFits(first, static_cast<unsigned char>(text[1])))
        return 0;
    for (std::size_t i = 2; i < length; ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) return 0;
    return length;
}

void JsonText::append(std::string_view text) {
    if (full_ || text_.size() + text.size() > kMostJson) {
        full_ = true;
        return;
    }
    text_.append(text);
}

void JsonText::separate() {
    if (!first_) append(",");
    first_ = false;
}

JsonText& JsonText::open(char bracket) {
    separate();
    append({&bracket, 1});
    closing_ += bracket == '{' ? '}' : ']';
    first_ = true;
    return *this;
}

JsonText& JsonText::close() {
    append({&closing_.back(), 1});
    closing_.pop_back();
    first_ = false;
    return *this;
}

JsonText& JsonText::key(std::string_view name) {
    separate();
    quote(name);
    append(":");
    first_ = true;  // the value follows without a comma
    return *this;
}

JsonText& JsonText::plain(std::string_view text) {
    separate();
    append(text);
    return *this;
}

JsonText& JsonText::item(std::string_view text) {
    separate();
    quote(text);
    return *this;
}

JsonText& JsonText::item(bool value) {
    return plain(value ? "true" : "false");
}

JsonText& JsonText::item(std::nullptr_t) {
    return plain("null");
}

// Six digits behind the point are more than any figure here has; trailing zeros say nothing.
JsonText& JsonText::item(double value) {
    if (!std::isfinite(value)) return item(nullptr);
    char text[400];
    std::snprintf(text, sizeof(text), "%.6f", value);
    std::string_view shown = text;
    shown.remove_suffix(shown.size() - 1 - shown.find_last_not_of('0'));
    if (shown.ends_with('.')) shown.remove_suffix(1);
    return plain(shown);
}

void JsonText::quote(std::string_view text) {
    append("\"");
    while (!text.empty() && !full_) {
        const auto special = std::find_if_not(text.begin(), text.end(), isPlain);
        append({text.data(), static_cast<std::size_t>(special - text.begin())});
        text.remove_prefix(static_cast<std::size_t>(special - text.begin()));
        if (text.empty()) break;
        std::size_t length = utf8Length(text);
        const char byte = text[0];
        if (length == 0) {
            append("?");
            length = 1;
        } else if (const char* escape = shortEscape(byte)) {
            append(escape);
        } else if (static_cast<unsigned char>(byte) < ' ') {
            char code[8];
            std::snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned>(byte));
            append(code);
        } else {
            append(text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    append("\"");
}

}  // namespace vx::collector
