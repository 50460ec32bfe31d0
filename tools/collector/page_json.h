// JSON text, written member by member.
//
//     JsonText json;
//     json.open('{').put("bt", row.bt).put("count", row.count);
//     json.key("spark").open('[').item(3).item(0).close().close();
//
// Texts may hold any bytes: what is no UTF-8 becomes "?". A number that is not finite becomes null.
//
// Limits    kMostJson bytes; what comes beyond is left out and full() says so: such a text must not be sent.
// Threads   One.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vx::collector {

inline constexpr std::size_t kMostJson = 16 * 1024 * 1024;

class JsonText {
public:
    // '{' or '['
    JsonText& open(char bracket);
    JsonText& close();
    JsonText& key(std::string_view name);

    JsonText& item(std::string_view text);
    JsonText& item(const char* text) { return item(std::string_view(text)); }
    JsonText& item(bool value);
    JsonText& item(double value);
    JsonText& item(std::nullptr_t);
    template <std::integral Number>
    JsonText& item(Number value) {
        return plain(std::to_string(value));
    }
    template <class Value>
    JsonText& item(const std::optional<Value>& value) {
        return value ? item(*value) : item(nullptr);
    }
    template <class Value>
    JsonText& put(std::string_view name, const Value& value) {
        return key(name).item(value);
    }

    // Null where it is not known.
    template <class Value>
    JsonText& putKnown(std::string_view name, bool known, const Value& value) {
        return known ? put(name, value) : put(name, nullptr);
    }
    // A list of objects; `fill(row)` puts the members of each.
    template <class Rows, class Fill>
    JsonText& putObjects(std::string_view name, const Rows& rows, Fill fill) {
        key(name).open('[');
        for (const auto& row : rows) {
            open('{');
            fill(row);
            close();
        }
        return close();
    }

    bool full() const { return full_; }
    std::string take() { return std::move(text_); }

private:
    JsonText& plain(std::string_view text);
    void separate();
    void append(std::string_view text);
    void quote(std::string_view text);

    std::string text_, closing_;
    bool first_ = true, full_ = false;
};

// Bytes of the well-formed UTF-8 character at the front of `text`; 0: there is none.
std::size_t utf8Length(std::string_view text);

}  // namespace vx::collector
