// Percent-encoding, as URLs have it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quarn2 {

// Letters, digits, "-._~" and the bytes of `also_plain` stay, every other byte becomes %XX.
std::string PercentEncoded(std::string_view text, std::string_view also_plain = {});

// The reverse; nothing when a "%" is not followed by two hexadecimal digits.
std::optional<std::string> PercentDecoded(std::string_view text);

}  // namespace quarn2
