// Hexadecimal digits.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quarn2 {

// Encodes each byte as two digits. Hex uses the letters "a" to "f", UpperHex "A" to "F".
std::string Hex(std::string_view bytes);
std::string UpperHex(std::string_view bytes);

// Decodes pairs of digits, in lower or upper case. Returns nullopt when the text contains anything
// else.
std::optional<std::string> FromHex(std::string_view text);

}  // namespace quarn2
