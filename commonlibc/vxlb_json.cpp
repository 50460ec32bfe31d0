#include "commonlibc/vxlb_json.h"

#include <apr_strings.h>
#include <jansson.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "commonlibc/vxlb_mem.h"
#include "commonlibc/vxlb_utiles.h"

namespace vx {

namespace {

struct JsonRelease {
    void operator()(json_t* value) const noexcept { json_decref(value); }
};
using Json = std::unique_ptr<json_t, JsonRelease>;

struct TextRelease {
    void operator()(char* text) const noexcept { VXLB_FREE(text, "text copy", -1); }
};
using OwnedText = std::unique_ptr<char, TextRelease>;

// Adds "key=value"; false when it is no pair, or no UTF-8.
bool addPair(json_t* object, char* pair) {
    pair += std::strspn(pair, " ");
    char* at = std::strchr(pair, '=');
    if (!at || at == pair) return false;
    *at = '\0';
    return json_object_set_new(object, pair, json_string(at + 1)) == 0;
}

Json fromPairs(const char* pairs) {
    const OwnedText copy(vxlb_strdup(pairs));
    Json object(json_object());
    if (!copy || !object) return nullptr;
    char* rest = nullptr;
    for (char* pair = apr_strtok(copy.get(), ",", &rest); pair; pair = apr_strtok(nullptr, ",", &rest))
        if (!addPair(object.get(), pair)) return nullptr;
    return json_object_size(object.get()) > 0 ? std::move(object) : nullptr;
}

Json fromText(const char* text) {
    if (text[std::strspn(text, " \t\r\n")] != '{') return fromPairs(text);
    Json object(json_loads(text, 0, nullptr));
    return json_is_object(object.get()) ? std::move(object) : nullptr;
}

// Texts come from peers: one that is no UTF-8 keeps its ASCII.
json_t* textValue(const char* text) {
    if (json_t* value = json_string(text)) return value;
    std::string ascii(text);
    for (char& byte : ascii)
        if (static_cast<unsigned char>(byte) > 127) byte = '?';
    return json_string(ascii.c_str());
}

// Writes the document compactly and terminates it; -1, and nothing, when it does not fit.
int dump(const json_t* document, char* out, std::size_t size) {
    const std::size_t length = json_dumpb(document, out, size - 1, JSON_COMPACT);
    const bool whole = length > 0 && length < size;
    out[whole ? length : 0] = '\0';
    return whole ? static_cast<int>(length) : -1;
}

}  // namespace

int vxlb_json_from_pairs(const char* pairs, char* out, std::size_t size) {
    if (size == 0) return -1;
    *out = '\0';
    const Json object = pairs ? fromText(pairs) : nullptr;
    if (!object) return -1;
    return dump(object.get(), out, size);
}

int vxlb_json_sections(std::span<const VXJsonSection> sections, char* out, std::size_t size) {
    if (size == 0) return -1;
    *out = '\0';
    const Json document(json_array());
    for (const VXJsonSection& section : sections) {
        Json object(json_object());
        for (const VXJsonMember& member : section.members) {
            if (!member.name) break;
            json_object_set_new(object.get(), member.name,
                                member.text ? textValue(member.text) : json_integer(member.number));
        }
        json_array_append_new(document.get(), json_string(section.name));
        json_array_append_new(document.get(), object.release());
    }
    return document ? dump(document.get(), out, size) : -1;
}

}  // namespace vx
