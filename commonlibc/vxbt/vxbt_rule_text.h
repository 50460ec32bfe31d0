// Texts that configure business transactions: where they come from, and their lines.
//
// Limits    A text has at most 1 MB; a line counts with its first 1,023 characters. A carriage return before
//           the end of a line is no part of it.
// Threads   Any; no state.
#pragma once

#include <cstddef>

namespace vx {

inline constexpr std::size_t kRuleLineSize = 1024;
inline constexpr std::size_t kMaxRuleText = 1 << 20;  // bytes, without the terminator

// What the argument of a reader is: the path of a file, or the text itself.
enum class VXRuleSource { kPath, kText };

// Reads a regular file whole into a heap block ("rule text"), terminated. 0; -1 with a trace line: the file
// cannot be read, or is too long.
int getLineFromFile(const char* path, char** text);
// Copies the text up to the next newline and moves the cursor behind it, to null at the text's end. False,
// with a trace line, when the cursor is null or at the end. `line` has kRuleLineSize bytes.
bool getNextLine(char* line, const char** cursor);

// The text of a reader's argument.
class VXRuleText {
public:
    VXRuleText(const char* pathOrText, VXRuleSource source);
    ~VXRuleText();
    VXRuleText(const VXRuleText&) = delete;
    VXRuleText& operator=(const VXRuleText&) = delete;

    // Empty where a file cannot be read or is too long; null: a text that was handed in is too long.
    const char* get() const noexcept { return text_; }

private:
    const char* text_ = "";
    char* block_ = nullptr;
};

// Calls visit(number, line) for each line of a text; numbers begin at 1, and `line` may be changed.
template <class Visit>
void eachRuleLine(const char* text, Visit visit) {
    char line[kRuleLineSize];
    const char* cursor = *text ? text : nullptr;
    for (int number = 1; cursor && getNextLine(line, &cursor); ++number) visit(number, line);
}

}  // namespace vx
