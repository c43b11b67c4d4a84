// Random bytes and the encodings of texts.
#include <sys/random.h>

#include <cerrno>

#include "kro/kro_err.h"
#include "kro/str.h"

namespace str {

std::string Random(std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t got = getrandom(bytes.data() + filled, size - filled, 0);
        if (got < 0 && errno != EINTR) throw kro_err::FromErrno("Failed to get random bytes");
        if (got > 0) filled += static_cast<std::size_t>(got);
    }
    return bytes;
}

std::string base64::Encode(std::string_view bytes) {
    static constexpr char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::string_view group = bytes.substr(i, 3);
        unsigned bits = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            bits = bits << 8 | (k < group.size() ? static_cast<unsigned char>(group[k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text += k <= group.size() ? kDigits[bits >> (18 - 6 * k) & 63U] : '=';
        }
    }
    return text;
}

std::string badchars::Escape(std::string_view text, char escape) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        const char letter = c == '\t' ? 't' : c == '\n' ? 'n' : c == '\r' ? 'r' : c;
        if (letter != c || c == escape) escaped += escape;
        escaped += letter;
    }
    return escaped;
}

std::string badchars::Unescape(std::string_view text, char escape) {
    std::string plain;
    plain.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == escape && i + 1 < text.size()) {
            c = text[++i];
            c = c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c;
        }
        plain += c;
    }
    return plain;
}

}  // namespace str
