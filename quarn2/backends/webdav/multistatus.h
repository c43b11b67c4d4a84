// What a WebDAV server answers with status 207: what it knows or did, resource by resource.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "listing_limit.h"
#include "net/http_client.h"
#include "net/xml.h"

namespace quarn2::webdav {

struct DavEntry {
    std::string href;
    int status = 0;  // of the resource as a whole; 0 when its properties have one each
    bool is_collection = false;
    std::int64_t length = -1;     // -1: not told
    std::string modified;         // as HTTP writes dates; "": not told
    std::int64_t available = -1;  // bytes that a quota or the disk leaves; -1: not told
};

// Takes a 207 piece by piece and hands out each resource as soon as it is complete. Answers with
// another status are none of its business.
class MultistatusSink final : public net::ReplySink, private net::XmlHandler {
  public:
    using Take = std::function<void(const DavEntry&)>;

    // `what` names the server in error texts.
    MultistatusSink(std::string what, Take take);

    void Begin(const net::HttpReply& reply) override;
    void Write(std::span<const std::byte> bytes) override;
    // To be called at the end: an answer that is cut off is kUnavailable.
    void Finish();

  private:
    void Open(std::string_view space, std::string_view name) override;
    void Close(std::string_view space, std::string_view name, const std::string& text) override;
    void TakeProperty(std::string_view name, const std::string& text);
    void EndProperties();

    std::string what_;
    ListingLimit limit_;
    std::size_t ignored_ = 0;
    Take take_;
    std::unique_ptr<net::XmlReader> reader_;
    bool in_response_ = false;
    bool in_properties_ = false;  // of one status
    bool in_type_ = false;
    int properties_status_ = 0;
    DavEntry entry_;
    DavEntry properties_;
};

// The number in "HTTP/1.1 404 Not Found", 0 when there is none.
int StatusOfLine(std::string_view line);

}  // namespace quarn2::webdav
