#include "keys.h"

#include <algorithm>
#include <cstddef>

#include "base/percent.h"

namespace quarn2::s3 {

namespace {

constexpr std::string_view kHighDigits = "89ABCDEF";
constexpr std::string_view kDigits = "0123456789ABCDEF";
constexpr std::string_view kEscapedPercent = "%25";
constexpr std::size_t kEscape = 3;

unsigned ByteAt(std::string_view text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

bool IsWithin(unsigned byte, unsigned lowest, unsigned highest) {
    return byte >= lowest && byte <= highest;
}

// Returns the length in bytes of the UTF-8 character at the start of the text, or 0 if the
// character is invalid. Overlong encodings, surrogates and code points above U+10FFFF are invalid.
std::size_t Character(std::string_view text) {
    const unsigned first = ByteAt(text, 0);
    if (first < 0x80) return text.empty() ? 0 : 1;
    const std::size_t length = IsWithin(first, 0xC2, 0xDF)   ? 2
                               : IsWithin(first, 0xE0, 0xEF) ? 3
                               : IsWithin(first, 0xF0, 0xF4) ? 4
                                                             : 0;
    const unsigned lowest = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned highest = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (length == 0 || !IsWithin(ByteAt(text, 1), lowest, highest)) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if (!IsWithin(ByteAt(text, i), 0x80, 0xBF)) return 0;
    }
    return length;
}

bool IsOneOf(std::string_view text, std::size_t at, std::string_view digits) {
    return at < text.size() && digits.find(text[at]) != std::string_view::npos;
}

// Returns true if the text begins with an escape of KeyOf(): "%25", or "%" followed by the two
// hexadecimal digits of a byte of 0x80 or more.
bool BeginsWithEscape(std::string_view text) {
    if (text.substr(0, kEscape) == kEscapedPercent) return true;
    return ByteAt(text, 0) == '%' && IsOneOf(text, 1, kHighDigits) && IsOneOf(text, 2, kDigits);
}

}  // namespace

std::string KeyOf(std::string_view name) {
    std::string key;
    while (!name.empty()) {
        const std::size_t length = std::max<std::size_t>(Character(name), 1);
        const std::string_view piece = name.substr(0, length);
        if (Character(name) == 0) {
            key += PercentEncoded(piece);
        } else if (BeginsWithEscape(name)) {
            key += kEscapedPercent;
        } else {
            key += piece;
        }
        name.remove_prefix(length);
    }
    return key;
}

std::optional<std::string> NameOf(std::string_view key) {
    std::string name;
    std::string_view rest = key;
    while (!rest.empty()) {
        const bool escaped = BeginsWithEscape(rest);
        const std::string_view piece = rest.substr(0, escaped ? kEscape : 1);
        if (escaped) {
            name += PercentDecoded(piece).value_or("");
        } else {
            name += piece;
        }
        rest.remove_prefix(piece.size());
    }
    if (KeyOf(name) != key) return std::nullopt;
    return name;
}

bool IsXmlText(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = Character(text);
        const std::string_view character = text.substr(0, length);
        if (length == 0 || ByteAt(text, 0) < 0x20) return false;
        if (character == "\xEF\xBF\xBE" || character == "\xEF\xBF\xBF") return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string XmlEscaped(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&apos;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

}  // namespace quarn2::s3
