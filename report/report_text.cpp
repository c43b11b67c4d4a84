#include "report_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

namespace {

struct Decoded {
    std::uint32_t code = 0;
    std::size_t size = 0;  // in bytes
};

unsigned ByteAt(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

// The number of bytes of the UTF-8 character that begins with `lead`; 0 when no character does.
std::size_t SizeByLead(unsigned lead) {
    if (lead < 0x80) return 1;
    if (lead >= 0xc2 && lead < 0xe0) return 2;
    if (lead >= 0xe0 && lead < 0xf0) return 3;
    if (lead >= 0xf0 && lead < 0xf5) return 4;
    return 0;
}

// Decodes the first character. Returns nothing when the text does not begin with valid UTF-8.
std::optional<Decoded> Decode(std::string_view text) {
    constexpr std::array<std::uint32_t, 5> kMinCode = {0, 0, 0x80, 0x800, 0x10000};
    constexpr std::array<unsigned, 5> kLeadMask = {0, 0x7f, 0x1f, 0x0f, 0x07};
    const std::size_t size = SizeByLead(ByteAt(text, 0));
    if (size == 0 || size > text.size()) return std::nullopt;
    std::uint32_t code = ByteAt(text, 0) & kLeadMask.at(size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((ByteAt(text, i) & 0xc0U) != 0x80) return std::nullopt;
        code = code << 6U | (ByteAt(text, i) & 0x3fU);
    }
    const bool is_surrogate = code >= 0xd800 && code < 0xe000;
    if (code < kMinCode.at(size) || is_surrogate || code > 0x10ffff) return std::nullopt;
    return Decoded{code, size};
}

bool IsPrintable(std::uint32_t code) {
    if (code < 0x20 || (code >= 0x7f && code < 0xa0)) return false;
    const bool is_direction = code == 0x61c || code == 0x200e || code == 0x200f ||
                              (code >= 0x202a && code <= 0x202e) ||
                              (code >= 0x2066 && code <= 0x2069);
    const bool is_invisible = code == 0xad || (code >= 0x200b && code <= 0x200d) ||
                              code == 0x2028 || code == 0x2029 || code == 0xfeff;
    return !is_direction && !is_invisible;
}

std::string EscapedCode(std::uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, code < 0x80 ? "\\x%02x" : "\\u%04x",
                  static_cast<unsigned>(code));
    return text;
}

std::string EscapedByte(unsigned byte) {
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02x", byte);
    return text;
}

// The number of characters of a valid UTF-8 text.
std::size_t Width(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0U) != 0x80;
    }));
}

}  // namespace

std::string Escaped(std::string_view text) {
    std::string escaped;
    while (!text.empty()) {
        const std::optional<Decoded> decoded = Decode(text);
        const std::size_t size = decoded ? decoded->size : 1;
        if (!decoded) {
            escaped += EscapedByte(ByteAt(text, 0));
        } else if (text.front() == '\\') {
            escaped += "\\\\";
        } else if (IsPrintable(decoded->code)) {
            escaped += text.substr(0, size);
        } else {
            escaped += EscapedCode(decoded->code);
        }
        text.remove_prefix(size);
    }
    return escaped;
}

std::string SizeText(std::int64_t bytes) {
    static constexpr std::array<const char*, 7> kUnits = {"B", "kB", "MB", "GB", "TB", "PB", "EB"};
    constexpr double kStep = 1000;
    constexpr double kRoundsUp = 999.5;
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= kRoundsUp || value <= -kRoundsUp) {
        value /= kStep;
        ++unit;
    }
    const double magnitude = value < 0 ? -value : value;
    const int digits = unit == 0 || magnitude >= 99.95 ? 0 : magnitude >= 9.995 ? 1 : 2;
    char text[32];
    std::snprintf(text, sizeof text, "%.*f %s", digits, value, kUnits.at(unit));
    return text;
}

void Table::Add(std::vector<std::string> cells) {
    widths_.resize(std::max(widths_.size(), cells.size()));
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const std::size_t width = Width(cells[i]);
        if (width <= kMaxWidth) widths_[i] = std::max(widths_[i], width);
    }
    rows_.push_back(std::move(cells));
}

bool Table::IsRight(std::size_t column) const {
    return std::find(right_.begin(), right_.end(), column) != right_.end();
}

std::string Table::Text(std::size_t indent) const {
    std::string text;
    for (const auto& row : rows_) {
        std::string line(indent, ' ');
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::size_t width = Width(row[i]);
            const std::string blanks(widths_[i] > width ? widths_[i] - width : 0, ' ');
            line += IsRight(i) ? blanks + row[i] : row[i] + blanks;
            line += "  ";
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}
