#include "address.h"

#include "base/percent.h"
#include "kro/str.h"
#include "net/curl_handle.h"

namespace quarn2::s3 {

namespace {

constexpr const char* kDefaultRegion = "us-east-1";

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

Address AddressOf(const BackupToken& token) {
    constexpr std::uint16_t kHttp = 80;
    constexpr std::uint16_t kHttps = 443;
    const bool is_plain = IsPlain(token);
    const auto place = BucketAndPrefix(token);
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
