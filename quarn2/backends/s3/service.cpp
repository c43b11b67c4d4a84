#include "service.h"

#include <algorithm>
#include <utility>

#include "base/hex.h"
#include "base/percent.h"
#include "base/stored_name.h"
#include "keys.h"
#include "kro/kro_date.h"
#include "kro/kro_err.h"
#include "kro/str.h"

namespace quarn2::s3 {

namespace {

using kro_err::Error;
using kro_err::Kind;

constexpr std::size_t kMaxKeyLength = 1024;
constexpr int kCleanupTimeout = 10;  // timeout of AskOnNewConnection() in seconds

}  // namespace

Service::Service(const BackupToken& token)
    : address_(AddressOf(token)),
      settings_(net::SettingsOf(token, "S3", net::ServerSettings::Auth::kNone)),
      client_(settings_),
      signer_({token.user(), token.password(), address_.region}) {}

std::string Service::KeyOf(const std::string& name) const {
    std::string key = s3::KeyOf(address_.prefix + name);
    if (key.size() > kMaxKeyLength) {
        throw Error(Kind::kFailed, "name " + Quoted(name) +
                                       " is not allowed on the storage: its key, with the prefix, "
                                       "is longer than 1024 bytes");
    }
    return key;
}

std::string Service::KeyOfDirectory(const std::string& name) const {
    return KeyOf(name.empty() ? name : name + "/");
}

net::HttpRequest Service::Signed(Call call) {
    const std::time_t now = kro_date::SystemNow();
    Unsigned request;
    request.method = call.method;
    request.path = address_.base + PercentEncoded(call.key, "/");
    request.query = CanonicalQuery(call.query);
    request.headers = std::move(call.headers);
    request.payload_hash = std::move(call.payload_hash);
    request.headers.emplace_back("x-amz-content-sha256", request.payload_hash);
    request.headers.emplace_back("x-amz-date", AmzDate(now));

    net::HttpRequest http;
    http.method = call.method;
    http.url = address_.url + request.path;
    str::inpl::Append(http.url, request.query, "?");
    for (const auto& header : request.headers) {
        http.headers.push_back(header.first + ": " + header.second);
    }
    request.headers.emplace_back("host", address_.host);
    http.headers.push_back("Authorization: " + signer_.Authorization(request, now));
    http.body = std::move(call.body);
    http.sink = call.sink;
    return http;
}

net::HttpReply Service::Ask(Call call) {
    net::HttpReply reply = client_.Do(Signed(std::move(call)));
    if (reply.IsSuccess()) bucket_seen_ = true;
    return reply;
}

net::HttpReply Service::Do(Call call, const std::string& operation) {
    net::HttpReply reply = Ask(std::move(call));
    if (!reply.IsSuccess()) ThrowRefused(reply, operation);
    return reply;
}

net::HttpReply Service::AskOnNewConnection(Call call) {
    net::ServerSettings settings = settings_;
    settings.timeout = std::min(settings.timeout, kCleanupTimeout);
    net::HttpClient client(settings);
    return client.Do(Signed(std::move(call)));
}

Refusal Service::RefusalOfKey(const net::HttpReply& reply, const std::string& key) const {
    return RefusalOf(reply, address_.bucket + "/" + key);
}

void Service::ThrowRefused(const net::HttpReply& reply, const std::string& operation) const {
    ThrowRefused(RefusalOf(reply), operation);
}

void Service::ThrowRefused(const Refusal& refusal, const std::string& operation) const {
    throw Error(refusal.kind(), what() + ": " + operation + ": " + refusal.Text());
}

void SetBody(Call& call, std::string text) {
    call.payload_hash = Hex(Sha256(text));
    call.body = std::make_unique<net::TextBody>(std::move(text));
}

std::string ContentMd5(std::string_view text) { return str::base64::Encode(Md5(text)); }

}  // namespace quarn2::s3
