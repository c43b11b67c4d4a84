#include "base/hex.h"

#include <charconv>

namespace quarn2 {

namespace {

std::string HexWith(std::string_view digits, std::string_view bytes) {
    std::string hex;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        hex += digits[byte >> 4U];
        hex += digits[byte & 15U];
    }
    return hex;
}

}  // namespace

std::string Hex(std::string_view bytes) { return HexWith("0123456789abcdef", bytes); }

std::string UpperHex(std::string_view bytes) { return HexWith("0123456789ABCDEF", bytes); }

std::optional<std::string> FromHex(std::string_view text) {
    if (text.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    for (; !text.empty(); text.remove_prefix(2)) {
        unsigned value = 0;
        const char* const end = text.data() + 2;
        const auto result = std::from_chars(text.data(), end, value, 16);
        if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
        bytes += static_cast<char>(value);
    }
    return bytes;
}

}  // namespace quarn2
