#include "kro/str.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "kro/kro_err.h"

namespace str {

namespace {

kro_err::Error NumberError(std::string_view text, const char* what) {
    return kro_err::Error(kro_err::Kind::kFailed, Quoted(text) + " " + what);
}

template <class Number>
Number ParseNumber(std::string_view text) {
    if (text.empty()) return 0;
    std::string_view digits = text;
    if (digits.front() == '+') {
        digits.remove_prefix(1);
        if (StartsWith(digits, "-")) throw NumberError(text, "is not a whole decimal number");
    }
    Number value = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (error == std::errc::invalid_argument || stop != end) {
        throw NumberError(text, "is not a whole decimal number");
    }
    if (error == std::errc::result_out_of_range) throw NumberError(text, "is out of range");
    return value;
}

template <class Texts>
std::string JoinTexts(const Texts& texts, std::string_view separator) {
    std::string joined;
    bool first = true;
    for (const std::string& text : texts) {
        if (!first) joined += separator;
        first = false;
        joined += text;
    }
    return joined;
}

void AddEntry(std::map<std::string, std::string>& entries, std::string_view line) {
    if (EndsWith(line, "\r")) line.remove_suffix(1);
    if (line.empty()) return;
    const std::size_t equals = line.find('=');
    const std::string key(line.substr(0, equals));
    entries[key] = equals == line.npos ? std::string() : std::string(line.substr(equals + 1));
}

}  // namespace

bool StartsWith(std::string_view text, std::string_view prefix) noexcept {
    return text.starts_with(prefix);
}

bool EndsWith(std::string_view text, std::string_view suffix) noexcept {
    return text.ends_with(suffix);
}

bool HasDigitsOnly(std::string_view text) noexcept {
    return !text.empty() && std::all_of(text.begin(), text.end(), IsDigit);
}

std::string Quoted(std::string_view text) {
    std::string quoted("'");
    return quoted.append(text).append("'");
}

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

std::string_view Trimmed(std::string_view text) noexcept {
    constexpr std::string_view kBlanks = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::string GetWord(std::string& text, std::string_view separator) {
    const std::size_t found = separator.empty() ? text.npos : text.find(separator);
    if (found == text.npos) return std::exchange(text, std::string());
    std::string word = text.substr(0, found);
    text.erase(0, found + separator.size());
    return word;
}

std::string RGetWord(std::string& text, std::string_view separator) {
    const std::size_t found = separator.empty() ? text.npos : text.rfind(separator);
    if (found == text.npos) return std::string();
    std::string word = text.substr(found + separator.size());
    text.erase(found);
    return word;
}

std::int32_t Int(std::string_view text) { return ParseNumber<std::int32_t>(text); }

std::int64_t Int64(std::string_view text) { return ParseNumber<std::int64_t>(text); }

std::string Append(const std::string& text, std::string_view tail, std::string_view separator) {
    std::string result = text;
    inpl::Append(result, tail, separator);
    return result;
}

void inpl::Append(std::string& text, std::string_view tail, std::string_view separator) {
    if (tail.empty()) return;
    // Copies `tail`, because it may point into `text`, whose buffer moves when it grows.
    const std::string added(tail);
    if (!text.empty()) text += separator;
    text += added;
}

std::string Join(const std::vector<std::string>& texts, std::string_view separator) {
    return JoinTexts(texts, separator);
}

std::string Join(const std::set<std::string>& texts, std::string_view separator) {
    return JoinTexts(texts, separator);
}

std::string Join(const std::map<std::string, std::string>& entries, std::string_view separator) {
    std::vector<std::string> lines;
    lines.reserve(entries.size());
    for (const auto& [key, value] : entries) lines.emplace_back(key).append("=").append(value);
    return JoinTexts(lines, separator);
}

std::map<std::string, std::string> Split(std::string_view text, std::string_view separator) {
    std::map<std::string, std::string> entries;
    while (!text.empty()) {
        const std::size_t found = separator.empty() ? text.npos : text.find(separator);
        AddEntry(entries, text.substr(0, found));
        text.remove_prefix(found == text.npos ? text.size() : found + separator.size());
    }
    return entries;
}

}  // namespace str
