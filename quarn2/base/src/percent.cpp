#include "base/percent.h"

#include <charconv>

namespace quarn2 {

namespace {

bool IsUnreserved(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~").find(c) != std::string_view::npos;
}

std::optional<char> HexByte(std::string_view digits) {
    unsigned value = 0;
    if (digits.size() < 2) return std::nullopt;
    const char* const end = digits.data() + 2;
    const auto result = std::from_chars(digits.data(), end, value, 16);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return static_cast<char>(value);
}

}  // namespace

std::string PercentEncoded(std::string_view text, std::string_view also_plain) {
    static constexpr std::string_view kHex = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        if (IsUnreserved(c) || also_plain.find(c) != std::string_view::npos) {
            encoded += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        encoded += '%';
        encoded += kHex[byte >> 4U];
        encoded += kHex[byte & 15U];
    }
    return encoded;
}

std::optional<std::string> PercentDecoded(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const std::optional<char> byte = HexByte(text.substr(i + 1));
        if (!byte) return std::nullopt;
        decoded += *byte;
        i += 2;
    }
    return decoded;
}

}  // namespace quarn2
