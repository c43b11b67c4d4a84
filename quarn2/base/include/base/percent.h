// Percent-encoding of URLs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quarn2 {

// Encodes every byte as %XX except letters, digits, "-._~" and the bytes of `also_plain`.
std::string PercentEncoded(std::string_view text, std::string_view also_plain = {});

// Decodes the text. Returns nullopt when a "%" is not followed by two hexadecimal digits.
std::optional<std::string> PercentDecoded(std::string_view text);

}  // namespace quarn2
