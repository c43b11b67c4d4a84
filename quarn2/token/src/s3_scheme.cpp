#include "token/s3_scheme.h"

#include <algorithm>
#include <string_view>

#include "base/ascii.h"
#include "built_in_schemes.h"
#include "kro/str.h"

namespace quarn2 {

namespace s3 {

namespace {

constexpr const char* kPlainScheme = "s3+http";
constexpr const char* kExample = "s3://ACCESS:SECRET@host/bucket/prefix";
constexpr std::size_t kMinBucketLength = 3;
constexpr std::size_t kMaxBucketLength = 255;
constexpr std::size_t kMaxHostLabelLength = 63;
constexpr std::size_t kMaxWordLength = 64;
// The maximum length of the storage's prefix in bytes. S3 limits keys to 1024 bytes, and the names
// of the files need the rest.
constexpr std::size_t kMaxPrefixLength = 512;

bool IsWord(std::string_view text, std::string_view marks) {
    return text.size() <= kMaxWordLength && std::all_of(text.begin(), text.end(), [marks](char c) {
               return IsLetterOrDigit(c) || marks.find(c) != std::string_view::npos;
           });
}

std::string BucketFault(const std::string& bucket, bool is_virtual) {
    if (bucket.empty()) return std::string("an S3 storage needs a bucket, as in ") + kExample;
    const bool good =
        bucket.size() >= kMinBucketLength && bucket.size() <= kMaxBucketLength &&
        std::all_of(
            bucket.begin(), bucket.end(),
            [](char c) { return IsLetterOrDigit(c) || c == '-' || c == '.' || c == '_'; }) &&
        bucket.front() != '.' && bucket.front() != '-' && bucket.find("..") == std::string::npos;
    if (!good) {
        return "invalid bucket name; use 3 to 255 letters, digits, "
               "'-', '.' and '_'";
    }
    const bool is_label =
        bucket.size() <= kMaxHostLabelLength &&
        std::none_of(bucket.begin(), bucket.end(), [](char c) { return IsUpper(c) || c == '_'; });
    if (is_virtual && !is_label) {
        return "this bucket name cannot be part of a host name; use style=path";
    }
    return {};
}

std::string PrefixFault(std::string prefix) {
    if (prefix.size() > kMaxPrefixLength) return "the prefix is longer than 512 bytes";
    while (!prefix.empty()) {
        const std::string component = str::GetWord(prefix, "/");
        if (component.empty() || component == "." || component == "..") {
            return "the prefix has an empty, '.' or '..' component";
        }
    }
    return {};
}

std::string StyleFault(const BackupToken& token) {
    const std::string style = token.Param("style");
    if (!style.empty() && style != "path" && style != "virtual") {
        return "parameter 'style' must be 'path' or 'virtual'";
    }
    if (!IsVirtual(token)) return {};
    const std::string& host = token.host();
    const bool is_address = host.find(':') != std::string::npos ||
                            host.find_first_not_of("0123456789.") == std::string::npos;
    if (is_address) return "style=virtual needs a host name, not an IP address";
    return {};
}

std::string PartSizeFault(const std::string& text) {
    if (text.empty()) return {};
    constexpr std::size_t kMaxDigits = 18;
    const bool number = text.size() <= kMaxDigits && str::HasDigitsOnly(text);
    const std::int64_t size = number ? str::Int64(text) : 0;
    if (size >= kMinPart && size <= kMaxPart) return {};
    return "parameter 'part_size' must be a number of bytes from " + str::Str(kMinPart) + " to " +
           str::Str(kMaxPart);
}

std::string ParamFault(const BackupToken& token) {
    if (IsPlain(token) && !token.Param("ca").empty()) {
        return "s3+http does not use TLS and does not support parameter 'ca'";
    }
    if (!IsWord(token.Param("region"), "-_")) {
        return "parameter 'region' must be the name of a region, such as us-east-1";
    }
    if (!IsWord(token.Param("storage_class"), "-_")) {
        return "parameter 'storage_class' must be a storage class, such as STANDARD_IA";
    }
    return PartSizeFault(token.Param("part_size"));
}

std::string Fault(const BackupToken& token) {
    if (token.host().empty()) return std::string("an S3 storage needs a host, as in ") + kExample;
    if (token.user().empty() || token.password().empty()) {
        return std::string("an S3 storage needs an access key and a secret key, as in ") +
               kExample + "; write '/', '+' and ':' in them as %2F, %2B and %3A";
    }
    std::string fault = StyleFault(token);
    if (!fault.empty()) return fault;
    const auto place = BucketAndPrefix(token);
    fault = BucketFault(place.first, IsVirtual(token));
    if (fault.empty()) fault = PrefixFault(place.second);
    return fault.empty() ? ParamFault(token) : fault;
}

}  // namespace

bool IsPlain(const BackupToken& token) { return token.scheme() == kPlainScheme; }

bool IsVirtual(const BackupToken& token) { return token.Param("style") == "virtual"; }

std::pair<std::string, std::string> BucketAndPrefix(const BackupToken& token) {
    std::string path = token.path();
    while (str::StartsWith(path, "/")) path.erase(0, 1);
    while (str::EndsWith(path, "/")) path.pop_back();
    std::string bucket = str::GetWord(path, "/");
    return {std::move(bucket), std::move(path)};
}

}  // namespace s3

TokenScheme S3TokenScheme(const std::string& name) {
    return {name, {"part_size", "region", "storage_class", "style"}, {}, s3::Fault};
}

}  // namespace quarn2
