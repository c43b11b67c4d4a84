#include "base/percent.h"

#include "base/ascii.h"
#include "base/hex.h"

namespace quarn2 {

namespace {

bool IsUnreserved(char c) noexcept {
    return IsLetterOrDigit(c) || std::string_view("-._~").find(c) != std::string_view::npos;
}

}  // namespace

std::string PercentEncoded(std::string_view text, std::string_view also_plain) {
    std::string encoded;
    for (const char& c : text) {
        if (IsUnreserved(c) || also_plain.find(c) != std::string_view::npos) {
            encoded += c;
            continue;
        }
        encoded += '%';
        encoded += UpperHex({&c, 1});
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
        const std::string_view digits = text.substr(i + 1, 2);
        const std::optional<std::string> byte = FromHex(digits);
        if (digits.size() != 2 || !byte) return std::nullopt;
        decoded += *byte;
        i += 2;
    }
    return decoded;
}

}  // namespace quarn2
