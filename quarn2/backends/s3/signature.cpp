#include "signature.h"

#include <algorithm>
#include <array>

#include "base/digest.h"
#include "base/hex.h"
#include "base/percent.h"
#include "kro/str.h"

namespace quarn2::s3 {

namespace {

constexpr std::string_view kAlgorithm = "AWS4-HMAC-SHA256";
constexpr std::size_t kDayLength = 8;

// Removes blanks and tabs at both ends of a header value and replaces each run of them by one
// blank.
std::string Squeezed(std::string_view text) {
    std::string squeezed;
    for (const char c : text) {
        const bool blank = c == ' ' || c == '\t';
        if (!blank) {
            squeezed += c;
        } else if (!squeezed.empty() && squeezed.back() != ' ') {
            squeezed += ' ';
        }
    }
    if (!squeezed.empty() && squeezed.back() == ' ') squeezed.pop_back();
    return squeezed;
}

// Sorts the headers by name. Joins the values of headers with the same name in their original
// order.
Params Canonical(const Params& headers) {
    Params sorted = headers;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    Params merged;
    for (const auto& header : sorted) {
        const std::string value = Squeezed(header.second);
        if (!merged.empty() && merged.back().first == header.first) {
            merged.back().second += "," + value;
        } else {
            merged.emplace_back(header.first, value);
        }
    }
    return merged;
}

std::string SignedNames(const Params& canonical) {
    std::string names;
    for (const auto& header : canonical) str::inpl::Append(names, header.first, ";");
    return names;
}

}  // namespace

std::string CanonicalQuery(const Params& params) {
    Params encoded;
    for (const auto& param : params) {
        encoded.emplace_back(PercentEncoded(param.first), PercentEncoded(param.second));
    }
    std::sort(encoded.begin(), encoded.end());
    std::string query;
    for (const auto& param : encoded) {
        str::inpl::Append(query, param.first + "=" + param.second, "&");
    }
    return query;
}

std::string AmzDate(std::time_t now) {
    std::tm utc = {};
    gmtime_r(&now, &utc);
    constexpr std::size_t kMaxLength = 32;
    std::array<char, kMaxLength> text = {};
    const std::size_t size = std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &utc);
    return {text.data(), size};
}

std::string CanonicalRequest(const Unsigned& request) {
    const Params headers = Canonical(request.headers);
    std::string text = request.method + "\n" + request.path + "\n" + request.query + "\n";
    for (const auto& header : headers) text += header.first + ":" + header.second + "\n";
    return text + "\n" + SignedNames(headers) + "\n" + request.payload_hash;
}

Signer::Signer(Credentials credentials) : credentials_(std::move(credentials)) {}

const std::string& Signer::KeyOfDay(const std::string& day) {
    if (day_ == day) return key_;
    key_ = HmacSha256("AWS4" + credentials_.secret, day);
    key_ = HmacSha256(key_, credentials_.region);
    key_ = HmacSha256(key_, credentials_.service);
    key_ = HmacSha256(key_, "aws4_request");
    day_ = day;
    return key_;
}

std::string Signer::Authorization(const Unsigned& request, std::time_t now) {
    const std::string date = AmzDate(now);
    const std::string day = date.substr(0, kDayLength);
    const std::string scope =
        day + "/" + credentials_.region + "/" + credentials_.service + "/aws4_request";
    const std::string text = std::string(kAlgorithm) + "\n" + date + "\n" + scope + "\n" +
                             Hex(Sha256(CanonicalRequest(request)));
    return std::string(kAlgorithm) + " Credential=" + credentials_.access + "/" + scope +
           ",SignedHeaders=" + SignedNames(Canonical(request.headers)) +
           ",Signature=" + Hex(HmacSha256(KeyOfDay(day), text));
}

}  // namespace quarn2::s3
