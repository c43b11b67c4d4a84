// Classes of ASCII characters. Unlike the functions of the C library, these ignore the locale and
// accept every char.
#pragma once

#include <algorithm>
#include <string_view>

namespace quarn2 {

constexpr bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }
constexpr bool IsLower(char c) noexcept { return c >= 'a' && c <= 'z'; }
constexpr bool IsUpper(char c) noexcept { return c >= 'A' && c <= 'Z'; }
constexpr bool IsLetterOrDigit(char c) noexcept { return IsLower(c) || IsUpper(c) || IsDigit(c); }

// Returns true when the text is not empty and contains only digits.
constexpr bool IsNumber(std::string_view text) noexcept {
    return !text.empty() && std::all_of(text.begin(), text.end(), IsDigit);
}

}  // namespace quarn2
