// Parses WebDAV responses with status 207 (Multi-Status), which contain properties or results for
// each resource.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/listing_limit.h"
#include "net/http_client.h"
#include "net/xml.h"

namespace quarn2::webdav {

struct DavEntry {
    std::string href;
    int status = 0;  // status of the resource; 0 if only its groups of properties have a status
    bool is_collection = false;
    std::int64_t length = -1;     // -1: unknown
    std::string modified;         // modification time in the date format of HTTP; "": unknown
    std::int64_t available = -1;  // free bytes in the quota or on the disk; -1: unknown
};

// Parses a response with status 207 while its bytes arrive, and passes each resource to `take` when
// it is complete. Ignores the bodies of responses with another status.
class MultistatusSink final : public net::ReplySink, private net::XmlHandler {
  public:
    using Take = std::function<void(const DavEntry&)>;

    // `what` is the name of the server in error texts. `take` is called once per resource.
    MultistatusSink(std::string what, Take take);

    void Begin(const net::HttpReply& reply) override;
    void Write(std::span<const std::byte> bytes) override;
    // Must be called after the last Write. Throws kUnavailable if the response is truncated.
    void Finish();

  private:
    void Open(std::string_view space, std::string_view name) override;
    void Close(std::string_view space, std::string_view name, const std::string& text) override;
    void HandleProperty(std::string_view name, const std::string& text);
    void EndProperties();

    std::string what_;
    ListingLimit limit_;
    std::size_t ignored_ = 0;
    Take take_;
    std::unique_ptr<net::XmlReader> reader_;
    bool in_response_ = false;
    bool in_properties_ = false;  // true inside a group of properties
    bool in_type_ = false;
    int properties_status_ = 0;
    DavEntry entry_;
    DavEntry properties_;
};

// Returns the status in a line such as "HTTP/1.1 404 Not Found", or 0 if the line contains no
// status.
int StatusOfLine(std::string_view line);

}  // namespace quarn2::webdav
