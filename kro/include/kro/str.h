// Text helpers.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace str {

bool StartsWith(std::string_view text, std::string_view prefix) noexcept;
bool EndsWith(std::string_view text, std::string_view suffix) noexcept;

// ASCII letters made small; every other byte stays.
std::string Lower(std::string_view text);

// What stands between the blanks, tabs and line ends at both ends.
std::string_view Trimmed(std::string_view text) noexcept;

// Cuts `text` at the first occurrence of `separator`: returns what stands before it and leaves what
// stands behind it. Without an occurrence (an empty separator never occurs) the word is all of
// `text`, which becomes empty.
std::string GetWord(std::string& text, std::string_view separator = " ");

// Cuts `text` at the last occurrence of `separator`: leaves what stands before it and returns what
// stands behind it. Without an occurrence `text` stays whole and the result is empty.
std::string RGetWord(std::string& text, std::string_view separator);

// Whole decimal numbers with an optional sign. The empty text is 0; any other text that is not such
// a number, or is out of range, is a kro_err::Error that quotes it.
std::int32_t Int(std::string_view text);
std::int64_t Int64(std::string_view text);

template <std::integral T>
std::string Str(T value) {
    return std::to_string(value);
}

// `text`, `separator` and `tail` in one; the separator stands only between two texts that are not
// empty.
std::string Append(const std::string& text, std::string_view tail, std::string_view separator);

namespace inpl {
// The same, onto `text` itself.
void Append(std::string& text, std::string_view tail, std::string_view separator);
}  // namespace inpl

std::string Join(const std::vector<std::string>& texts, std::string_view separator);
std::string Join(const std::set<std::string>& texts, std::string_view separator);

// KEY=VALUE entries in key order.
std::string Join(const std::map<std::string, std::string>& entries, std::string_view separator);

// The reverse: cuts every line at its first "=" (a line without one is a key with an empty value),
// skips empty lines, strips a carriage return at a line's end. A key given twice keeps the last
// value.
std::map<std::string, std::string> Split(std::string_view text, std::string_view separator);

// `size` bytes of the system's random source.
std::string Random(std::size_t size);

namespace base64 {
std::string Encode(std::string_view bytes);
}

namespace badchars {
// Makes a text fit for one field of a line: tab, line feed, carriage return and the escape
// character itself are written as the escape character and a letter (t, n, r) or the character.
std::string Escape(std::string_view text, char escape);

// The reverse; an escaped character without a meaning of its own stands for itself.
std::string Unescape(std::string_view text, char escape);
}  // namespace badchars

}  // namespace str
