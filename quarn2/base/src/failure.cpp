#include "base/failure.h"

#include <algorithm>

#include "base/ascii.h"
#include "kro/str.h"

namespace quarn2 {

namespace {

bool IsWordPart(char c) noexcept {
    return IsLower(c) || IsDigit(c) || (static_cast<unsigned char>(c) > 127);
}

bool IsDelimiter(char c) noexcept { return c == '/' || c == '\'' || c == '"' || c == '`'; }

// Returns true when text[begin, end) is not part of a longer word, so that the path component "a"
// is not removed from the word "space".
bool IsOnItsOwn(const std::string& text, std::size_t begin, std::size_t end) noexcept {
    return (begin == 0 || !IsWordPart(text[begin - 1])) &&
           (end == text.size() || !IsWordPart(text[end]));
}

bool IsDelimited(const std::string& text, std::size_t begin, std::size_t end) noexcept {
    return IsOnItsOwn(text, begin, end) && ((begin > 0 && IsDelimiter(text[begin - 1])) ||
                                            (end < text.size() && IsDelimiter(text[end])));
}

using IsIt = bool (*)(const std::string& text, std::size_t begin, std::size_t end) noexcept;

void Erase(std::string& text, const std::string& name, IsIt is_it) {
    if (name.empty()) return;
    for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, ++at)) {
        if (is_it(text, at, at + name.size())) text.replace(at, name.size(), " ");
    }
}

}  // namespace

kro_err::Kind KindOf(Failure failure) noexcept {
    using kro_err::Kind;
    switch (failure) {
        case Failure::kUnauthorized:
            return Kind::kUnauthorized;
        case Failure::kNotFound:
            return Kind::kNotFound;
        case Failure::kUnavailable:
            return Kind::kUnavailable;
        case Failure::kNoRoom:
        case Failure::kFailed:
            break;
    }
    return Kind::kFailed;
}

std::string SearchableText(std::string_view text, std::string_view path) {
    std::string searched = str::Lower(std::string(text));
    std::string rest = str::Lower(std::string(path));
    Erase(searched, rest, IsOnItsOwn);
    Erase(searched, str::RGetWord(rest, "/"), IsOnItsOwn);
    // Remove a directory name only where a slash or quote delimits it. The text "quota exceeded"
    // then remains, even if a user's directory is named "quota".
    while (!rest.empty()) Erase(searched, str::GetWord(rest, "/"), IsDelimited);
    return searched;
}

}  // namespace quarn2
