#include "reply.h"

#include <algorithm>
#include <utility>

#include "base/ascii.h"
#include "kro/str.h"

namespace quarn2::ftp {

namespace {

constexpr std::size_t kCodeLength = 3;
// The maximum number of bytes of a reply that are kept. Replies have only a few lines.
constexpr std::size_t kMaxTextBytes = 16UL * 1024;

// Returns the reply code at the beginning of a line, or 0 if the line does not begin with a code.
int CodeOf(std::string_view line) {
    if (line.size() < kCodeLength) return 0;
    const std::string_view digits = line.substr(0, kCodeLength);
    return str::HasDigitsOnly(digits) ? str::Int(digits) : 0;
}

// Returns true if text[begin, end) begins or ends inside a word.
bool CutsWord(std::string_view text, std::size_t begin, std::size_t end) {
    const bool before = begin > 0 && IsLetterOrDigit(text[begin - 1]);
    const bool after = end < text.size() && IsLetterOrDigit(text[end]);
    return (before && IsLetterOrDigit(text[begin])) || (after && IsLetterOrDigit(text[end - 1]));
}

void EraseName(std::string& text, std::string_view name) {
    if (name.empty()) return;
    std::size_t found = 0;
    while ((found = text.find(name, found)) != std::string::npos) {
        if (!CutsWord(text, found, found + name.size())) text.replace(found, name.size(), 1, ' ');
        ++found;
    }
}

bool IsPath(std::string_view word) {
    word.remove_prefix(std::min(word.find_first_not_of("\"'(<["), word.size()));
    return word.starts_with('/');
}

std::string WithoutPaths(std::string_view text) {
    constexpr std::string_view kBlanks = " \n\t";
    std::string rest;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find_first_of(kBlanks), text.size());
        const std::string_view word = text.substr(0, end);
        if (!IsPath(word)) rest += word;
        rest += ' ';
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return rest;
}

std::string_view WithoutLineEnd(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    return line;
}

}  // namespace

std::int64_t NumberIn(const Reply& reply) {
    constexpr int kStatus = 213;
    constexpr std::size_t kMaxDigits = 18;
    if (reply.code != kStatus) return -1;
    const std::size_t end = reply.text.find_last_not_of(" \n") + 1;
    const std::string_view digits = std::string_view(reply.text).substr(0, end);
    const bool is_number = digits.size() <= kMaxDigits && str::HasDigitsOnly(digits);
    return is_number ? str::Int64(digits) : -1;
}

std::string WithoutNames(std::string text, const std::vector<std::string>& names) {
    for (const std::string& name : names) EraseName(text, name);
    for (std::string_view name : names) {
        while (!name.empty()) {
            const std::size_t end = std::min(name.find('/'), name.size());
            EraseName(text, name.substr(0, end));
            name.remove_prefix(std::min(end + 1, name.size()));
        }
    }
    return WithoutPaths(text);
}

void Transcript::Clear() {
    replies_.clear();
    open_.clear();
    is_leaving_ = false;
    argument_.clear();
    previous_argument_.clear();
}

void Transcript::Sent(std::string_view line) {
    line = WithoutLineEnd(line);
    open_.clear();
    is_leaving_ = line == "QUIT";
    if (is_leaving_) return;
    Reply reply;
    const std::size_t end = std::min(line.find(' '), line.size());
    reply.verb = line.substr(0, end);
    const bool is_secret = reply.verb == "PASS" || reply.verb == "ACCT";
    line.remove_prefix(std::min(end + 1, line.size()));
    previous_argument_ = std::exchange(argument_, is_secret ? "" : std::string(line));
    if (reply.verb == "USER") login_ = argument_;
    replies_.push_back(std::move(reply));
}

void Transcript::Received(std::string_view line) {
    if (is_leaving_) return;
    line = WithoutLineEnd(line);
    const int code = CodeOf(line);
    const bool last = code != 0 && (line.size() == kCodeLength || line[kCodeLength] == ' ');
    const bool first = code != 0 && line.size() > kCodeLength && line[kCodeLength] == '-';
    if (last || first) line.remove_prefix(std::min(kCodeLength + 1, line.size()));
    if (open_.size() + line.size() < kMaxTextBytes) str::inpl::Append(open_, line, "\n");
    if (!last) return;
    // Add an entry for a reply that does not follow a new command: the greeting, or the second
    // reply to a transfer command. A server replies to a transfer at its start and at its end.
    if (replies_.empty() || replies_.back().code != 0) {
        Reply reply;
        if (!replies_.empty()) reply.verb = replies_.back().verb;
        replies_.push_back(std::move(reply));
    }
    Reply& reply = replies_.back();
    reply.code = code;
    reply.text = std::exchange(open_, std::string());
    if (!reply.IsRefusal()) return;
    reply.words = WithoutNames(reply.text, {argument_, previous_argument_, login_});
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

bool Transcript::HasPort() const noexcept {
    constexpr int kPassive = 227;
    constexpr int kExtendedPassive = 229;
    if (replies_.empty()) return false;
    return replies_.back().code == kPassive || replies_.back().code == kExtendedPassive;
}

bool Transcript::IsTransferStart() const noexcept {
    constexpr int kBegun = 100;
    constexpr int kDone = 200;
    return !replies_.empty() && replies_.back().code >= kBegun && replies_.back().code < kDone;
}

}  // namespace quarn2::ftp
