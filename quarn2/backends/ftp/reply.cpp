#include "backends/ftp/reply.h"

#include <algorithm>
#include <array>
#include <utility>

#include "kro/str.h"

namespace quarn2::ftp {

namespace {

using kro_err::Kind;

constexpr std::size_t kCodeLength = 3;
// A reply is a few lines; the longest of use is that of MLST.
constexpr std::size_t kLongestText = 16UL * 1024;
constexpr int kTimedOut = 421;
constexpr int kNoSpace = 452;
constexpr int kNotLoggedIn = 530;
constexpr int kNeedAccount = 532;
constexpr int kOverQuota = 552;

bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// 0 when the line does not begin with a code.
int CodeOf(std::string_view line) {
    if (line.size() < kCodeLength) return 0;
    const std::string_view digits = line.substr(0, kCodeLength);
    return std::all_of(digits.begin(), digits.end(), IsDigit) ? str::Int(digits) : 0;
}

char Small(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// True when one of the words, written in small letters, is in the text.
template <std::size_t count>
bool HasAny(std::string_view text, const std::array<std::string_view, count>& words) {
    std::string small(text);
    std::transform(small.begin(), small.end(), small.begin(), Small);
    return std::any_of(words.begin(), words.end(), [&small](std::string_view word) {
        return small.find(word) != std::string::npos;
    });
}

std::string_view WithoutLineEnd(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    return line;
}

}  // namespace

void Transcript::Clear() {
    replies_.clear();
    open_.clear();
    is_leaving_ = false;
}

void Transcript::Sent(std::string_view line) {
    line = WithoutLineEnd(line);
    open_.clear();
    is_leaving_ = line == "QUIT";
    if (is_leaving_) return;
    Reply reply;
    reply.verb = line.substr(0, line.find(' '));
    replies_.push_back(std::move(reply));
}

void Transcript::Received(std::string_view line) {
    if (is_leaving_) return;
    line = WithoutLineEnd(line);
    const int code = CodeOf(line);
    const bool last = code != 0 && (line.size() == kCodeLength || line[kCodeLength] == ' ');
    const bool first = code != 0 && line.size() > kCodeLength && line[kCodeLength] == '-';
    if (last || first) line.remove_prefix(std::min(kCodeLength + 1, line.size()));
    if (open_.size() + line.size() < kLongestText) str::inpl::Append(open_, line, "\n");
    if (!last) return;
    // A greeting answers nothing; a transfer is answered twice, at its beginning and at its end.
    if (replies_.empty() || replies_.back().code != 0) {
        Reply reply;
        if (!replies_.empty()) reply.verb = replies_.back().verb;
        replies_.push_back(std::move(reply));
    }
    replies_.back().code = code;
    replies_.back().text = std::exchange(open_, std::string());
}

const Reply* Transcript::Find(std::string_view verb) const noexcept {
    const auto found = std::find_if(replies_.rbegin(), replies_.rend(), [verb](const Reply& reply) {
        return reply.verb == verb && reply.code != 0;
    });
    return found == replies_.rend() ? nullptr : &*found;
}

const Reply* Transcript::Refusal() const noexcept {
    return !replies_.empty() && replies_.back().IsRefusal() ? &replies_.back() : nullptr;
}

bool Transcript::TellsPort() const noexcept {
    constexpr int kPassive = 227;
    constexpr int kExtendedPassive = 229;
    if (replies_.empty()) return false;
    return replies_.back().code == kPassive || replies_.back().code == kExtendedPassive;
}

bool SaysMissing(std::string_view text) {
    static constexpr std::array<std::string_view, 5> kWords = {
        "no such file", "not found", "does not exist", "doesn't exist", "cannot find the"};
    return HasAny(text, kWords);
}

bool SaysDenied(std::string_view text) {
    static constexpr std::array<std::string_view, 5> kWords = {
        "permission denied", "access denied", "access is denied", "not permitted", "prohibited"};
    return HasAny(text, kWords);
}

bool SaysTlsNeeded(std::string_view text) {
    static constexpr std::array<std::string_view, 5> kWords = {"tls", "ssl", "encrypt", "cleartext",
                                                               "secure"};
    return HasAny(text, kWords);
}

bool SaysTruncated(std::string_view text) {
    static constexpr std::array<std::string_view, 1> kWords = {"truncated"};
    return HasAny(text, kWords);
}

bool IsFull(const Reply& reply) {
    static constexpr std::array<std::string_view, 8> kWords = {
        "no space",         "disk full",    "disk is full",         "quota",
        "not enough space", "out of space", "insufficient storage", "insufficient disk"};
    if (reply.code == kNoSpace || reply.code == kOverQuota) return true;
    return reply.IsRefusal() && HasAny(reply.text, kWords);
}

bool RefusesDataConnection(const Reply& reply) noexcept {
    constexpr int kCannotOpen = 425;
    constexpr int kSecurityRefused = 522;
    return reply.code == kCannotOpen || reply.code == kSecurityRefused;
}

bool IsUnknownCommand(const Reply& reply) noexcept {
    static constexpr std::array<int, 4> kCodes = {500, 501, 502, 504};
    return std::find(kCodes.begin(), kCodes.end(), reply.code) != kCodes.end();
}

Kind KindOf(const Reply& reply) noexcept {
    if (reply.code == kNotLoggedIn || reply.code == kNeedAccount) return Kind::kUnauthorized;
    return reply.code >= kTimedOut && reply.code < 500 ? Kind::kUnavailable : Kind::kFailed;
}

}  // namespace quarn2::ftp
