// A database that is asked: one statement for each dialect, answers row by row.
//
// Limits    A statement that takes longer than the time given is ended and answers kCut.
// Threads   One at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vx::collector {

inline constexpr int kQueryTimeMs = 4000;

// kCut: a limit was met, what is there is true but not all.
enum class Answered { kOk, kCut, kFailed };

// Milliseconds since the Unix epoch; `to` is not in it.
struct TimeSpan {
    std::int64_t from = 0, to = INT64_MAX;
};

// A statement with a "?" for each value: no text ever becomes part of it.
class Sql {
public:
    using Value = std::variant<std::int64_t, std::string>;

    explicit Sql(std::string text) : text_(std::move(text)) {}
    Sql& add(std::string_view text) {
        text_ += text;
        return *this;
    }
    Sql& add(std::string_view text, std::int64_t value) {
        values_.emplace_back(value);
        return add(text);
    }
    Sql& add(std::string_view text, const std::string& value) {
        values_.emplace_back(value);
        return add(text);
    }
    // A value whose mark is in the text already.
    Sql& bind(Value value) {
        values_.push_back(std::move(value));
        return *this;
    }
    const std::string& text() const { return text_; }
    const std::vector<Value>& values() const { return values_; }

private:
    std::string text_;
    std::vector<Value> values_;
};

// The beginning of the interval that a row lies in: counted from the first value on, as wide as the second.
// The rest of a division is as narrow as the divisor in some engines: 60000 of two bytes would lose its sign.
inline constexpr const char* kBin = "at - (at - ?) % CAST(? AS Int64) AS bin";

class ResultRow {
public:
    virtual ~ResultRow() = default;
    virtual std::int64_t number(int column) const = 0;
    virtual std::string text(int column) const = 0;
};

class Database {
public:
    virtual ~Database() = default;
    using Take = std::function<void(const ResultRow&)>;
    // kFailed with the reason in `error`.
    virtual Answered select(const Sql& sql, const Take& take, std::string& error) = 0;
    // Condition with one "?": the column's text holds the value.
    virtual std::string contains(const char* column) const = 0;
    // The sum of a column of whole numbers: one that is out of range is no error and not below 0, but about
    // the greatest.
    virtual std::string sum(const char* column) const = 0;
    // All that is asked in between is of one moment, where the engine has that. Holds the writer's journal:
    // for as short as can be.
    virtual void hold() {}
    virtual void release() {}
    // Rows are found by their time, and by nothing else without reading all.
    virtual bool findsByTime() const = 0;
};

// A file that is there already, for reading. Null with the reason in `error`.
std::unique_ptr<Database> openSqlite(const std::string& path, int timeMs, std::string& error);

}  // namespace vx::collector
