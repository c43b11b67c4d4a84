// What S3 servers answer, taken out of the XML.
#pragma once

#include <string>
#include <vector>

#include "kro/kro_err.h"
#include "listing_limit.h"
#include "net/http_client.h"
#include "net/xml.h"

namespace quarn2::s3 {

// A refusal. Servers leave out what they like: the message may be empty, and without a body (HEAD,
// a proxy in between) there is no code either.
struct Refusal {
    int status = 0;
    std::string code;
    std::string message;
    std::string region;  // where the bucket is, when the server tells

    // The storage has no room: a quota, or a disk that is full.
    bool IsNoRoom() const;
    kro_err::Kind kind() const;
    // "QuotaExceeded (HTTP 403)", with the message and what to do about it where that is known.
    std::string Text() const;
};

// Of an answer whose status is no success, or whose body is an error all the same.
Refusal RefusalOf(const net::HttpReply& reply);

struct Listing {
    std::vector<std::string> keys;
    std::vector<std::string> directories;  // with the slash at the end
    std::string next;                      // continues the listing; "" at its end
};

struct Upload {
    std::string key;
    std::string id;
};

struct Uploads {
    std::vector<Upload> uploads;
    bool more = false;
};

// The answer to the end of an upload in parts, or to its beginning: an error may come with a 200.
struct UploadAnswer {
    bool is_error = false;
    std::string id;
    std::string etag;
};

struct DeleteAnswer {
    std::string key;  // the first that stays, "" when all are gone
    Refusal refusal;
};

// Reads one answer piece by piece; what makes no sense is kUnavailable. `what` names the server.
class ListingReader final : public net::ReplySink, private net::XmlHandler {
  public:
    explicit ListingReader(const std::string& what) : reader_(what, *this), limit_(what) {}
    void Write(std::span<const std::byte> bytes) override { reader_.Feed(bytes); }
    Listing Finish();

  private:
    void Open(std::string_view space, std::string_view name) override;
    void Close(std::string_view space, std::string_view name, const std::string& text) override;

    net::XmlReader reader_;
    ListingLimit limit_;
    std::vector<std::string> path_;
    Listing listing_;
};

Uploads ReadUploads(const std::string& what, const std::string& body);
UploadAnswer ReadUploadAnswer(const std::string& what, const std::string& body);
DeleteAnswer ReadDeleteAnswer(const std::string& what, const std::string& body);

// An ETag without its quotes.
std::string Unquoted(std::string etag);

}  // namespace quarn2::s3
