// Classes of ASCII characters. Unlike the functions of the C library, these ignore the locale and
// accept every char.
#pragma once

#include "kro/str.h"

namespace quarn2 {

using str::IsDigit;
constexpr bool IsLower(char c) noexcept { return c >= 'a' && c <= 'z'; }
constexpr bool IsUpper(char c) noexcept { return c >= 'A' && c <= 'Z'; }
constexpr bool IsLetterOrDigit(char c) noexcept { return IsLower(c) || IsUpper(c) || IsDigit(c); }

}  // namespace quarn2
