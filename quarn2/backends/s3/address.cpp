#include "backends/s3/address.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "kro/str.h"
#include "net/curl_handle.h"
#include "percent.h"
#include "quarn2_backend/storage_backend.h"

namespace quarn2::s3 {

namespace {

constexpr const char* kPlainScheme = "s3+http";
constexpr const char* kExample = "s3://ACCESS:SECRET@host/bucket/prefix";
constexpr const char* kDefaultRegion = "us-east-1";
constexpr std::size_t kMinBucketLength = 3;
constexpr std::size_t kMaxBucketLength = 255;
constexpr std::size_t kMaxHostLabelLength = 63;
constexpr std::size_t kMaxWordLength = 64;
// The maximum length of the storage's prefix in bytes. S3 limits keys to 1024 bytes, and the names
// of the files need the rest.
constexpr std::size_t kMaxPrefixLength = 512;

bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }
bool IsLower(char c) noexcept { return c >= 'a' && c <= 'z'; }
bool IsUpper(char c) noexcept { return c >= 'A' && c <= 'Z'; }

bool IsWord(std::string_view text, std::string_view marks) {
    return text.size() <= kMaxWordLength && std::all_of(text.begin(), text.end(), [marks](char c) {
               return IsLower(c) || IsUpper(c) || IsDigit(c) ||
                      marks.find(c) != std::string_view::npos;
           });
}

// Splits the path of a token into bucket and prefix. Strips slashes at both ends of the path.
std::pair<std::string, std::string> Split(std::string path) {
    while (str::StartsWith(path, "/")) path.erase(0, 1);
    while (str::EndsWith(path, "/")) path.pop_back();
    std::string bucket = str::GetWord(path, "/");
    return {std::move(bucket), std::move(path)};
}

bool IsVirtual(const BackupToken& token) { return token.Param("style") == "virtual"; }

std::string BucketFault(const std::string& bucket, bool is_virtual) {
    if (bucket.empty()) return std::string("an S3 storage needs a bucket, as in ") + kExample;
    const bool good = bucket.size() >= kMinBucketLength && bucket.size() <= kMaxBucketLength &&
                      std::all_of(bucket.begin(), bucket.end(),
                                  [](char c) {
                                      return IsLower(c) || IsUpper(c) || IsDigit(c) || c == '-' ||
                                             c == '.' || c == '_';
                                  }) &&
                      bucket.front() != '.' && bucket.front() != '-' &&
                      bucket.find("..") == std::string::npos;
    if (!good) {
        return "what stands in the bucket's place is no bucket's name: 3 to 255 letters, digits, "
               "'-', '.' and '_'";
    }
    const bool is_label =
        bucket.size() <= kMaxHostLabelLength &&
        std::none_of(bucket.begin(), bucket.end(), [](char c) { return IsUpper(c) || c == '_'; });
    if (is_virtual && !is_label) {
        return "this bucket's name cannot be a part of a host name: use style=path";
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
    if (is_address) return "style=virtual needs a host name, not an address";
    return {};
}

std::string PartSizeFault(const std::string& text) {
    if (text.empty()) return {};
    constexpr std::size_t kMaxDigits = 18;
    const bool number = text.size() <= kMaxDigits && std::all_of(text.begin(), text.end(), IsDigit);
    const std::int64_t size = number ? str::Int64(text) : 0;
    if (size >= kMinPart && size <= kMaxPart) return {};
    return "parameter 'part_size' must be a number of bytes from " + str::Str(kMinPart) + " to " +
           str::Str(kMaxPart);
}

std::string ParamFault(const BackupToken& token) {
    if (token.scheme() == kPlainScheme && !token.Param("ca").empty()) {
        return "s3+http has no TLS, and no use for parameter 'ca'";
    }
    if (!IsWord(token.Param("region"), "-_")) {
        return "parameter 'region' is no region's name, as in us-east-1";
    }
    if (!IsWord(token.Param("storage_class"), "-_")) {
        return "parameter 'storage_class' is no storage class, as in STANDARD_IA";
    }
    return PartSizeFault(token.Param("part_size"));
}

// Returns the value of the Host header exactly as libcurl sends it, because the header is signed.
// The default port of the protocol is omitted.
std::string HostText(const BackupToken& token, std::uint16_t default_port) {
    std::string host = net::HostAndPort(token);
    if (token.port() == default_port) str::RGetWord(host, ":");
    return host;
}

std::string Or(const std::string& text, const char* otherwise) {
    return text.empty() ? std::string(otherwise) : text;
}

}  // namespace

std::string Fault(const BackupToken& token) {
    if (token.host().empty()) return std::string("an S3 storage needs a host, as in ") + kExample;
    if (token.user().empty() || token.password().empty()) {
        return std::string("an S3 storage needs an access key and a secret key, as in ") +
               kExample + "; write '/', '+' and ':' in them as %2F, %2B and %3A";
    }
    std::string fault = StyleFault(token);
    if (!fault.empty()) return fault;
    const auto place = Split(token.path());
    fault = BucketFault(place.first, IsVirtual(token));
    if (fault.empty()) fault = PrefixFault(place.second);
    return fault.empty() ? ParamFault(token) : fault;
}

Address AddressOf(const BackupToken& token) {
    constexpr std::uint16_t kHttp = 80;
    constexpr std::uint16_t kHttps = 443;
    const bool is_plain = token.scheme() == kPlainScheme;
    const auto place = Split(token.path());
    Address address;
    address.bucket = place.first;
    address.host = HostText(token, is_plain ? kHttp : kHttps);
    address.base = "/";
    if (IsVirtual(token)) {
        address.host.insert(0, address.bucket + ".");
    } else {
        address.base += PercentEncoded(address.bucket) + "/";
    }
    address.url = (is_plain ? "http://" : "https://") + address.host;
    if (!place.second.empty()) address.prefix = place.second + "/";
    address.region = Or(token.Param("region"), kDefaultRegion);
    address.storage_class = token.Param("storage_class");
    const std::int64_t part_size = str::Int64(token.Param("part_size"));
    if (part_size != 0) address.part_size = part_size;
    return address;
}

}  // namespace quarn2::s3
