#include "known_hosts.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <optional>

#include "kro/kro_err.h"
#include "kro/kro_file.h"
#include "kro/str.h"

namespace quarn2::sftp {

namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr std::string_view kHashMark = "|1|";

std::string_view CutWord(std::string_view& text, std::string_view separators) {
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(separators));
    text.remove_prefix(word.size());
    return word;
}

// Returns true if the text matches the pattern. "*" matches any text, "?" matches any single
// character, every other character matches itself.
bool MatchesPattern(std::string_view text, std::string_view pattern) {
    std::size_t at = 0;
    std::size_t in_pattern = 0;
    std::optional<std::size_t> star;
    std::size_t star_at = 0;
    while (at < text.size()) {
        if (in_pattern < pattern.size() && pattern[in_pattern] == '*') {
            star = in_pattern++;
            star_at = at;
        } else if (in_pattern < pattern.size() &&
                   (pattern[in_pattern] == '?' || pattern[in_pattern] == text[at])) {
            ++in_pattern;
            ++at;
        } else if (star) {
            in_pattern = *star + 1;
            at = ++star_at;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', in_pattern) == std::string_view::npos;
}

std::optional<std::string> DecodeBase64(std::string_view text) {
    if (text.empty() || text.size() % 4 != 0) return std::nullopt;
    std::vector<unsigned char> from(text.begin(), text.end());
    std::vector<unsigned char> to(text.size() / 4 * 3);
    if (EVP_DecodeBlock(to.data(), from.data(), static_cast<int>(from.size())) < 0) {
        return std::nullopt;
    }
    const auto padding = static_cast<std::size_t>(std::count(text.end() - 2, text.end(), '='));
    return std::string(to.begin(), to.end() - static_cast<std::ptrdiff_t>(padding));
}

// Returns true if a hashed host name of a known_hosts file belongs to `host`. Its format is
// |1|SALT|HASH, with salt and hash in base64. The hash is the HMAC-SHA1 of the host name with the
// salt as the key.
bool MatchesHash(const std::string& host, std::string_view hashed) {
    hashed.remove_prefix(kHashMark.size());
    const std::size_t bar = hashed.find('|');
    if (bar == std::string_view::npos) return false;
    const auto salt = DecodeBase64(hashed.substr(0, bar));
    const auto expected = DecodeBase64(hashed.substr(bar + 1));
    if (!salt || !expected) return false;
    const std::vector<unsigned char> text(host.begin(), host.end());
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    unsigned size = 0;
    if (HMAC(EVP_sha1(), salt->data(), static_cast<int>(salt->size()), text.data(), text.size(),
             hash.data(), &size) == nullptr) {
        return false;
    }
    return std::equal(hash.begin(), hash.begin() + size, expected->begin(), expected->end(),
                      [](unsigned char a, char b) { return a == static_cast<unsigned char>(b); });
}

}  // namespace

KnownHosts::KnownHosts(const std::string& host, std::uint16_t port)
    : host_(port == 22 ? str::Lower(host) : "[" + str::Lower(host) + "]:" + std::to_string(port)) {}

void KnownHosts::AddFile(const std::string& path) {
    try {
        AddText(kro_file::Read(path));
    } catch (const kro_err::Error& error) {
        if (error.kind() == kro_err::Kind::kNotFound) return;
        throw kro_err::Error(kro_err::Kind::kUnauthorized,
                             std::string("the host key cannot be checked: ") + error.what());
    }
}

void KnownHosts::AddText(std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        AddLine(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

// Parses a line of a known_hosts file: "[MARKER] HOSTS TYPE KEY [COMMENT]".
void KnownHosts::AddLine(std::string_view line) {
    std::string_view word = CutWord(line, kBlanks);
    if (word.empty() || word.front() == '#') return;
    const bool revoked = word == "@revoked";
    if (word.front() == '@') {
        if (!revoked) return;
        word = CutWord(line, kBlanks);
    }
    const std::string_view type = CutWord(line, kBlanks);
    const std::string_view key = CutWord(line, kBlanks);
    if (!key.empty() && IsForHost(word)) {
        entries_.push_back({revoked, std::string(type), std::string(key)});
    }
}

// Returns true if the HOSTS field of a known_hosts line matches this host. A matching pattern with
// "!" excludes the host, even if other patterns match.
bool KnownHosts::IsForHost(std::string_view hosts) const {
    if (str::StartsWith(hosts, kHashMark)) return MatchesHash(host_, hosts);
    bool meant = false;
    for (std::string_view pattern = CutWord(hosts, ","); !pattern.empty();
         pattern = CutWord(hosts, ",")) {
        const bool excludes = pattern.front() == '!';
        if (excludes) pattern.remove_prefix(1);
        if (!MatchesPattern(host_, str::Lower(pattern))) continue;
        if (excludes) return false;
        meant = true;
    }
    return meant;
}

Trust KnownHosts::Check(std::string_view type, std::string_view key) const {
    Trust trust = Trust::kUnknown;
    for (const Entry& entry : entries_) {
        const bool same = entry.type == type && entry.key == key;
        if (same && entry.revoked) return Trust::kRevoked;
        if (same) {
            trust = Trust::kTrusted;
        } else if (!entry.revoked && trust == Trust::kUnknown) {
            trust = Trust::kChanged;
        }
    }
    return trust;
}

std::vector<std::string> KnownHosts::Types() const {
    std::vector<std::string> types;
    for (const Entry& entry : entries_) {
        const bool known = std::find(types.begin(), types.end(), entry.type) != types.end();
        if (!entry.revoked && !known) types.push_back(entry.type);
    }
    return types;
}

}  // namespace quarn2::sftp
