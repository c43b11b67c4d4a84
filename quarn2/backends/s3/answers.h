// Parses the XML responses of S3 servers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/listing_limit.h"
#include "net/http_client.h"
#include "net/xml.h"
#include "refusal.h"

namespace quarn2::s3 {

// Parses an error response: a response whose status is not 2xx, or a response with status 200 whose
// body contains an error. `path` becomes Refusal::path.
Refusal RefusalOf(const net::HttpReply& reply, std::string path = {});

struct ListedKey {
    std::string key;
    std::optional<std::int64_t> size;

    friend bool operator==(const ListedKey&, const ListedKey&) = default;
};

struct Listing {
    std::vector<ListedKey> keys;
    std::vector<std::string> directories;  // each name has a trailing slash
    std::string next;                      // the continuation token; "" on the last page
};

struct UnfinishedUpload {
    std::string key;
    std::string id;
};

struct Uploads {
    std::vector<UnfinishedUpload> uploads;
    bool more = false;
};

// The response to the start or the completion of a multipart upload. A response with status 200 may
// contain an error.
struct UploadAnswer {
    bool is_error = false;
    std::string id;
    std::string etag;
};

// A key that a request for several keys did not remove, and the reason.
struct DeleteAnswer {
    std::string key;
    Refusal refusal;
};

// Parses one page of a listing while its bytes arrive. Throws kUnavailable for a malformed listing,
// and kFailed for a listing that exceeds ListingLimit. `what` is the name of the server in error
// texts.
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
    ListedKey object_;  // the object whose element is being parsed
    Listing listing_;
};

Uploads ReadUploads(const std::string& what, const std::string& body);
UploadAnswer ReadUploadAnswer(const std::string& what, const std::string& body);
// Returns the keys that were not removed. A key that did not exist counts as removed.
std::vector<DeleteAnswer> ReadDeleteAnswer(const std::string& what, const std::string& body);

// Returns an ETag without the quotes around it.
std::string Unquoted(std::string etag);

}  // namespace quarn2::s3
