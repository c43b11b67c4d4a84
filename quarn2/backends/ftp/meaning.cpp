#include "meaning.h"

#include <algorithm>
#include <array>
#include <string>

namespace quarn2::ftp {

namespace {

using kro_err::Kind;

struct Row {
    int code;
    Meaning meaning;
    bool text_decides = false;  // the reply's text can change the meaning to kNoRoom or kNotFound
};

// The meaning of FTP reply codes. A code that is not in the table is treated like 400 or 500.
constexpr std::array<Row, 18> kCodes = {{
    {400, Meaning::kUnavailable, true},
    {421, Meaning::kUnavailable},  // the server closes the connection
    {425, Meaning::kUnavailable},  // no data connection
    {426, Meaning::kUnavailable},  // data connection closed
    {430, Meaning::kUnavailable},
    {450, Meaning::kUnavailable, true},
    {451, Meaning::kUnavailable, true},  // a write failed for an unknown reason
    {452, Meaning::kNoRoom},
    {500, Meaning::kFailed, true},
    {501, Meaning::kFailed},
    {502, Meaning::kFailed},
    {503, Meaning::kFailed},
    {504, Meaning::kFailed},
    {522, Meaning::kFailed},  // the server requires a data connection that reuses the TLS session
    {530, Meaning::kUnauthorized},
    {550, Meaning::kFailed, true},
    {552, Meaning::kNoRoom},
    {553, Meaning::kFailed, true},
}};

char Small(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Returns true if the text contains one of the phrases, ignoring case. The phrases must be in lower
// case.
template <std::size_t count>
bool HasAny(std::string_view text, const std::array<std::string_view, count>& phrases) {
    std::string small(text);
    std::transform(small.begin(), small.end(), small.begin(), Small);
    return std::any_of(phrases.begin(), phrases.end(), [&small](std::string_view phrase) {
        return small.find(phrase) != std::string::npos;
    });
}

bool SaysFull(std::string_view words) {
    static constexpr std::array<std::string_view, 7> kPhrases = {
        "no space",         "disk full",    "disk is full",
        "not enough space", "out of space", "insufficient storage",
        "insufficient disk"};
    static constexpr std::array<std::string_view, 1> kQuota = {"quota"};
    static constexpr std::array<std::string_view, 6> kUsedUp = {"exceed", "over",  "full",
                                                                "limit",  "reach", "insufficient"};
    return HasAny(words, kPhrases) || (HasAny(words, kQuota) && HasAny(words, kUsedUp));
}

// Returns true if the text of a refused login reports too many clients. Some servers send this
// refusal with the reply code for a wrong password.
bool SaysTooMany(std::string_view words) {
    static constexpr std::array<std::string_view, 5> kPhrases = {"too many", "maximum number",
                                                                 "try again", "later", "busy"};
    return HasAny(words, kPhrases);
}

const Row& RowOf(int code) {
    constexpr int kHundred = 100;
    const auto find = [](int wanted) {
        return std::find_if(kCodes.begin(), kCodes.end(),
                            [wanted](const Row& row) { return row.code == wanted; });
    };
    auto found = find(code);
    if (found == kCodes.end()) found = find(code / kHundred * kHundred);
    return found == kCodes.end() ? *find(500) : *found;
}

}  // namespace

Meaning MeaningOf(const Reply& reply) {
    if (!reply.IsRefusal()) return Meaning::kDone;
    const Row& row = RowOf(reply.code);
    if (row.meaning == Meaning::kUnauthorized && SaysTooMany(reply.words)) {
        return Meaning::kUnavailable;
    }
    if (!row.text_decides) return row.meaning;
    if (SaysFull(reply.words)) return Meaning::kNoRoom;
    return ReportsMissing(reply.words) ? Meaning::kNotFound : row.meaning;
}

Kind KindOf(const Reply& reply) {
    constexpr int kLasting = 500;
    switch (MeaningOf(reply)) {
        case Meaning::kUnauthorized:
            return Kind::kUnauthorized;
        case Meaning::kUnavailable:
            return Kind::kUnavailable;
        case Meaning::kNoRoom:
        case Meaning::kNotFound:
            return reply.code < kLasting ? Kind::kUnavailable : Kind::kFailed;
        default:
            return Kind::kFailed;
    }
}

bool IsFull(const Reply& reply) { return MeaningOf(reply) == Meaning::kNoRoom; }

bool IsUnknownCommand(const Reply& reply) noexcept {
    static constexpr std::array<int, 4> kUnknown = {500, 501, 502, 504};
    return std::find(kUnknown.begin(), kUnknown.end(), reply.code) != kUnknown.end();
}

bool RefusesDataConnection(const Reply& reply) noexcept {
    static constexpr std::array<int, 2> kRefused = {425, 522};
    return std::find(kRefused.begin(), kRefused.end(), reply.code) != kRefused.end();
}

bool ReportsMissing(std::string_view words) {
    static constexpr std::array<std::string_view, 5> kPhrases = {
        "no such file", "not found", "does not exist", "doesn't exist", "cannot find the"};
    return HasAny(words, kPhrases);
}

bool ReportsDenied(std::string_view words) {
    static constexpr std::array<std::string_view, 5> kPhrases = {
        "permission denied", "access denied", "access is denied", "not permitted", "prohibited"};
    return HasAny(words, kPhrases);
}

bool ReportsTlsNeeded(std::string_view words) {
    static constexpr std::array<std::string_view, 5> kPhrases = {"tls", "ssl", "encrypt",
                                                                 "cleartext", "secure"};
    return HasAny(words, kPhrases);
}

bool ReportsTruncation(std::string_view text) {
    static constexpr std::array<std::string_view, 1> kPhrases = {"truncated"};
    return HasAny(text, kPhrases);
}

}  // namespace quarn2::ftp
