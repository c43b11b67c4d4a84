#include "delete_objects.h"

#include <utility>

#include "keys.h"

namespace quarn2::s3 {

Call DeleteCall(const std::string& key) {
    Call call;
    call.method = "DELETE";
    call.key = key;
    return call;
}

void CheckRemoved(const Service& service, const net::HttpReply& reply,
                  const std::string& operation) {
    if (reply.IsSuccess()) return;
    const Refusal refusal = RefusalOf(reply);
    if (refusal.IsMissing()) return;
    service.ThrowRefused(refusal, operation);
}

bool IsUnknownRequest(const net::HttpReply& reply) {
    constexpr int kMethodNotAllowed = 405;
    constexpr int kNotImplemented = 501;
    const Refusal refusal = RefusalOf(reply);
    return reply.status == kMethodNotAllowed || reply.status == kNotImplemented ||
           refusal.code == "MethodNotAllowed" || refusal.code == "NotImplemented" ||
           refusal.code == "MalformedXML" || refusal.code == "AccessDenied";
}

Call DeleteObjectsCall(std::span<const std::string> keys) {
    std::string body =
        "<Delete xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Quiet>true</Quiet>";
    for (const std::string& key : keys) {
        body += "<Object><Key>" + XmlEscaped(key) + "</Key></Object>";
    }
    body += "</Delete>";
    Call call;
    call.method = "POST";
    call.query = {{"delete", ""}};
    call.headers = {{"content-md5", ContentMd5(body)}, {"content-type", "application/xml"}};
    SetBody(call, std::move(body));
    return call;
}

}  // namespace quarn2::s3
