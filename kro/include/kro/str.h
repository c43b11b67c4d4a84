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

// True for the ASCII digits.
constexpr bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// True for a text of one or more ASCII digits.
bool HasDigitsOnly(std::string_view text) noexcept;

// The text between single quotes, as messages show names and paths.
std::string Quoted(std::string_view text);

// Converts ASCII letters to lower case. Other bytes stay unchanged.
std::string Lower(std::string_view text);

// The text without leading and trailing blanks, tabs and line ends.
std::string_view Trimmed(std::string_view text) noexcept;

// Removes and returns the part of `text` before the first `separator`, and removes that separator.
// When `text` does not contain `separator`, or `separator` is empty, returns all of `text` and
// leaves `text` empty.
std::string GetWord(std::string& text, std::string_view separator = " ");

// Removes and returns the part of `text` after the last `separator`, and removes that separator.
// When `text` does not contain `separator`, or `separator` is empty, returns an empty text and
// leaves `text` unchanged.
std::string RGetWord(std::string& text, std::string_view separator);

// Parse a decimal integer with an optional sign. The empty text is 0. Throw kro_err::Error, which
// quotes the text, for any other text and for a number out of range.
std::int32_t Int(std::string_view text);
std::int64_t Int64(std::string_view text);

template <std::integral T>
std::string Str(T value) {
    return std::to_string(value);
}

// Concatenates `text`, `separator` and `tail`. Omits the separator when `text` or `tail` is empty.
std::string Append(const std::string& text, std::string_view tail, std::string_view separator);

namespace inpl {
// Appends `separator` and `tail` to `text` in place. Omits the separator when `text` or `tail` is
// empty.
void Append(std::string& text, std::string_view tail, std::string_view separator);
}  // namespace inpl

std::string Join(const std::vector<std::string>& texts, std::string_view separator);
std::string Join(const std::set<std::string>& texts, std::string_view separator);

// Joins KEY=VALUE entries in key order.
std::string Join(const std::map<std::string, std::string>& entries, std::string_view separator);

// Parses KEY=VALUE lines. Splits every line at its first "=". A line without "=" is a key with an
// empty value. Skips empty lines and strips a carriage return at the end of a line. When a key is
// repeated, its last value counts.
std::map<std::string, std::string> Split(std::string_view text, std::string_view separator);

// Returns `size` bytes of the system's random source.
std::string Random(std::size_t size);

namespace base64 {
std::string Encode(std::string_view bytes);
}

namespace badchars {
// Escapes a text for one field of a line: writes tab, line feed, carriage return and the escape
// character itself as the escape character followed by t, n, r or itself.
std::string Escape(std::string_view text, char escape);

// Reverses Escape. If any other character follows the escape character, both stay as they are.
std::string Unescape(std::string_view text, char escape);
}  // namespace badchars

}  // namespace str
