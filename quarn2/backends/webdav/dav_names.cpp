#include "dav_names.h"

#include <algorithm>

#include "base/ascii.h"
#include "base/hex.h"
#include "base/percent.h"
#include "base/stored_name.h"
#include "kro/kro_file.h"
#include "kro/str.h"
#include "net/curl_handle.h"

namespace quarn2::webdav {

namespace {

constexpr std::size_t kRandomBytes = 6;
constexpr std::size_t kRandomDigits = 2 * kRandomBytes;
// The maximum length of a name on common file systems.
constexpr std::size_t kMaxNameLength = 255;
constexpr std::string_view kTemporaryEnd = ".part~";

// Returns true for the digits that Hex() writes.
bool IsHexDigit(char c) noexcept { return IsDigit(c) || (c >= 'a' && c <= 'f'); }

// Returns the beginning of a file's name that fits into its temporary name.
std::string_view Kept(std::string_view file) {
    return file.substr(0, kMaxNameLength - kRandomDigits - 1 - kTemporaryEnd.size());
}

bool HasRandomStart(std::string_view entry) noexcept {
    return entry.size() > kRandomDigits && entry[kRandomDigits] == '.' &&
           std::all_of(entry.begin(), entry.begin() + kRandomDigits, IsHexDigit);
}

bool IsOwnForm(std::string_view entry) noexcept {
    return HasRandomStart(entry) && entry.ends_with(kTemporaryEnd) &&
           entry.size() > kRandomDigits + 1 + kTemporaryEnd.size();
}

// Strips the suffix of "TEMPORARY.0000000012". nginx copies an upload to a file with such a name if
// it cannot rename the upload, and does not remove the copy if the disk is full.
std::string_view WithoutCounter(std::string_view entry) noexcept {
    constexpr std::size_t kMinDigits = 10;
    const std::size_t dot = entry.rfind('.');
    if (dot == std::string_view::npos) return entry;
    const std::string_view digits = entry.substr(dot + 1);
    const bool counter = digits.size() >= kMinDigits && str::HasDigitsOnly(digits);
    const std::string_view rest = entry.substr(0, dot);
    return counter && IsOwnForm(rest) ? rest : entry;
}

std::optional<std::string> DecodedSegment(std::string_view segment) {
    std::optional<std::string> name = PercentDecoded(segment);
    const bool bad = !name || name->empty() || *name == "." || *name == ".." ||
                     name->find('/') != std::string::npos || HasControl(*name);
    if (bad) return std::nullopt;
    return name;
}

// Returns the path of an href without query and fragment. The href is a URL or an absolute path.
std::string_view PathOf(std::string_view href) {
    const std::size_t scheme = href.find("://");
    if (scheme != std::string_view::npos && scheme < href.find('/')) {
        href.remove_prefix(std::min(href.find('/', scheme + 3), href.size()));
    }
    return href.substr(0, href.find_first_of("?#"));
}

// Decodes a percent-encoded path: "/a%2Eb//c" becomes "/a.b/c". The components are decoded one by
// one, so that an encoded slash does not count as a separator.
std::optional<std::string> DecodedPath(std::string_view path) {
    std::string decoded;
    while (!path.empty()) {
        if (path.front() != '/') return std::nullopt;
        path.remove_prefix(1);
        const std::string_view segment = path.substr(0, path.find('/'));
        path.remove_prefix(segment.size());
        if (segment.empty()) continue;
        const std::optional<std::string> name = DecodedSegment(segment);
        if (!name) return std::nullopt;
        decoded.append("/").append(*name);
    }
    return decoded;
}

}  // namespace

DavAddress::DavAddress(const BackupToken& token)
    : origin_((token.scheme() == "webdav" ? "https://" : "http://") + net::HostAndPort(token)),
      root_(kro_file::GoodPath(token.path())) {}

std::string DavAddress::File(const std::string& name) const {
    return origin_ + PercentEncoded(kro_file::ConcatPath(root_, name), "/");
}

std::string DavAddress::Directory(const std::string& name) const { return File(name) + "/"; }

std::optional<std::string> DavAddress::NameOf(std::string_view href) const {
    const std::optional<std::string> path = DecodedPath(PathOf(href));
    if (!path || !str::StartsWith(*path, root_)) return std::nullopt;
    if (path->size() == root_.size()) return std::string();
    if ((*path)[root_.size()] != '/') return std::nullopt;
    return path->substr(root_.size() + 1);
}

std::string NewTemporaryName(const std::string& name) {
    const auto [directory, file] = kro_file::SplitPath(name);
    std::string temporary = Hex(str::Random(kRandomBytes));
    temporary.append(".").append(Kept(file)).append(kTemporaryEnd);
    return kro_file::ConcatPath(directory, temporary);
}

bool IsTemporaryEntry(std::string_view entry) noexcept { return IsOwnForm(WithoutCounter(entry)); }

bool IsTemporaryOf(std::string_view entry, std::string_view file) noexcept {
    const std::string_view temporary = WithoutCounter(entry);
    if (!IsOwnForm(temporary)) return false;
    const std::string_view middle = temporary.substr(kRandomDigits + 1);
    return middle.substr(0, middle.size() - kTemporaryEnd.size()) == Kept(file);
}

}  // namespace quarn2::webdav
