// What S3 servers answer, taken out of the XML.
#pragma once

#include <string>
#include <vector>

#include "backends/s3/refusal.h"
#include "listing_limit.h"
#include "net/http_client.h"
#include "net/xml.h"

namespace quarn2::s3 {

// Of an answer whose status is no success, or whose body is an error all the same. `path` is that
// of the refusal.
Refusal RefusalOf(const net::HttpReply& reply, std::string path = {});

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
